// Time texts in three time zones, one of them east, one west, each with daylight saving or without.
// A program of its own, as it sets the zone of the process.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "adif/frame.h"
#include "adif/timetext.h"

namespace {

time_t utc(int year, int month, int day, int hour, int minute, int second) {
  tm fields = {};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  return timegm(&fields);
}

struct zone {
  const char *name;
  int winter, summer;  // seconds east of UTC in January and July
};

const zone zones[] = {{"UTC0", 0, 0},
                      {"CET-1CEST,M3.5.0,M10.5.0/3", 3600, 7200},
                      {"NST3:30NDT,M3.2.0,M11.1.0", -12600, -9000}};

class time_text : public testing::TestWithParam<zone> {
 protected:
  void SetUp() override {
    setenv("TZ", GetParam().name, 1);
    tzset();
  }
};

}  // namespace

TEST_P(time_text, reads_both_forms_as_local_time) {
  const zone &z = GetParam();
  const time_t winter = utc(2009, 1, 2, 10, 20, 30) - z.winter;
  const time_t summer = utc(2009, 7, 2, 10, 20, 30) - z.summer;
  const struct {
    const char *text;
    time_t expected;
  } cases[] = {{"2009-01-02 10:20:30", winter},
               {"2009-07-02 10:20:30", summer},
               {"Jan 2 2009 10:20:30", winter},
               {"Jul  2 2009  10:20:30", summer},  // runs of blanks
               {"  Jul 2 2009 10:20:30", summer},
               {"Jun 2 2009 10:20:30", utc(2009, 6, 2, 10, 20, 30) - z.summer},
               {"Feb 02 2009 10:20:30", utc(2009, 2, 2, 10, 20, 30) - z.winter},
               {"Nov 30 2009 10:20:30", utc(2009, 11, 30, 10, 20, 30) - z.winter},
               {"May 2 2009 10:20:30", winter},  // never recognised: as if January
               {"Dec 2 2009 10:20:30", winter},
               {"jul 2 2009 10:20:30", winter},
               {"July 2 2009 10:20:30", winter},
               {"Jan 2 2009 10:20:3x", winter - 27},
               {"Jan 2 2009 10::20:30", -1},
               {"Jan 2 2009 10:20-30s", -1},  // no second colon
               {"Jan 2 2009 10:20:  ", winter - 30},
               {"2009-01-02T10:20:30", -1},
               {"2009-01-02 10:20:xx", -1},
               {"nothing at all in here", -1}};
  for (const auto &c : cases) EXPECT_EQ(get_time_from_string(c.text, -1), c.expected) << c.text;
}

TEST_P(time_text, writes_what_it_reads) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int i = 0; i < 1000; ++i) {
    const auto t = static_cast<time_t>(random() % 0x7FFF'FFFF);
    tm fields;
    localtime_r(&t, &fields);
    char text[32];
    ASSERT_EQ(time_to_string(t, text, sizeof text), 19);
    const time_t read = get_time_from_string(text, -1);
    // The hour that a change of clocks repeats has two readings.
    ASSERT_TRUE(read == t || std::abs(read - t) == 3600) << text;
    char again[32];
    time_to_string(read, again, sizeof again);
    ASSERT_STREQ(again, text);
    ASSERT_EQ(time_to_datestring(t, again, sizeof again), 10);
    ASSERT_EQ(std::string(again), std::string(text, 10));
  }
  char text[64];
  const time_t winter = utc(2009, 1, 2, 10, 20, 30) - GetParam().winter;
  EXPECT_EQ(convert_time_to_string(winter, text, sizeof text), 29);  // local time, whatever it says
  EXPECT_STREQ(text, "Fri, 02 Jan 2009 10:20:30 GMT");
  EXPECT_EQ(convert_time_to_string2(winter, text, sizeof text), 32);
  EXPECT_STREQ(text, "Friday, 02-Jan-2009 10:20:30 GMT");
}

INSTANTIATE_TEST_SUITE_P(zones, time_text, testing::ValuesIn(zones),
                         [](const auto &run) { return std::string(run.param.name).substr(0, 3); });

TEST(time_text_bounds, lengths_and_null) {
  setenv("TZ", "UTC0", 1);
  tzset();
  const std::string text = "2009-01-02 10:20:30";
  const time_t t = utc(2009, 1, 2, 10, 20, 30);
  EXPECT_EQ(get_time_from_string(text.c_str(), 19), t);
  EXPECT_EQ(get_time_from_string(text.c_str(), 18), -1);
  EXPECT_EQ(get_time_from_string((text + std::string(44, ' ')).c_str(), -1), t);
  EXPECT_EQ(get_time_from_string((text + std::string(45, ' ')).c_str(), -1), -1);
  EXPECT_EQ(get_time_from_string((text + std::string(45, ' ')).c_str(), 64), -1);
  EXPECT_EQ(get_time_from_string((text + "999").c_str(), 19), t);
  for (int len : {-1, 0, 1}) EXPECT_EQ(get_time_from_string(nullptr, len), -1);
  for (int len : {-1, 0, 1}) EXPECT_EQ(get_time_from_string("x", len), -1);

  char buf[20] = "x";
  EXPECT_EQ(time_to_string(t, buf, 19), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(time_to_string(t, buf, 20), 19);
  EXPECT_EQ(time_to_string(t, nullptr, 20), -1);
  EXPECT_EQ(time_to_string(t, buf, 0), -1);
  EXPECT_EQ(time_to_string(INT64_MAX, buf, 20), -1);
  frame_t *frame = nullptr;
  EXPECT_EQ(time_to_frame(t, &frame), 19);
  EXPECT_EQ(time_to_frame(t, nullptr), -1);
  EXPECT_EQ(std::memcmp(bytePointer(frame), text.data(), 19), 0);
  deleteFrame(&frame);

  wtime_t now;
  const time_t before = time(nullptr);
  EXPECT_EQ(wtime(&now), 0);
  EXPECT_TRUE(now.seconds >= before && now.seconds <= before + 60);
  EXPECT_TRUE(now.milliseconds >= 0 && now.milliseconds < 1000);
  EXPECT_EQ(wtime(nullptr), -1);
  time_t again;
  const char *ctime_text = get_curtime_str(&again);
  EXPECT_EQ(std::string(ctime_text), ctime(&again));
}
