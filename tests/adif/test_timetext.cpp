// Time texts in three time zones, east and west of UTC, with daylight saving and without. Each zone
// has a process of its own.
#include <gtest/gtest.h>

#include <cstring>

#include "adif/frame.h"
#include "adif/timetext.h"
#include "support/support.h"

namespace {

time_t utc(unsigned month, unsigned day, int seconds_east) {
  using namespace std::chrono;
  const sys_days date = year{2009} / std::chrono::month{month} / std::chrono::day{day};
  return system_clock::to_time_t(date + 10h + 20min + 30s) - seconds_east;
}

void expect_both_forms(int winter_east, int summer_east) {
  const time_t winter = utc(1, 2, winter_east), summer = utc(7, 2, summer_east);
  const struct {
    const char *text;
    time_t expected;
  } cases[] = {{"2009-01-02 10:20:30", winter},
               {"2009-07-02 10:20:30", summer},
               {"Jan 2 2009 10:20:30", winter},
               {"  Jul  2 2009  10:20:30", summer},  // runs of blanks
               {"Jun 2 2009 10:20:30", utc(6, 2, summer_east)},
               {"Feb 02 2009 10:20:30", utc(2, 2, winter_east)},
               {"Nov 30 2009 10:20:30", utc(11, 30, winter_east)},
               {"May 2 2009 10:20:30", winter},  // never recognised: as if January
               {"Dec 2 2009 10:20:30", winter},
               {"jul 2 2009 10:20:30", winter},
               {"July 2 2009 10:20:30", winter},
               {"Jan 2 2009 10:20:3x", winter - 27},
               {"Jan 2 2009 10::20:30", -1},
               {"Jan 2 2009 10:20-30s", -1},  // no second colon
               {"2009-01-02T10:20:30", -1},
               {"2009-01-02 10:20:xx", -1}};
  for (const auto &c : cases) EXPECT_EQ(get_time_from_string(c.text, -1), c.expected) << c.text;
}

// Against strftime; every text that was written is read again.
void expect_texts_as_strftime() {
  Random random;
  const struct {
    int (*write)(time_t, char *, int);
    const char *format;
  } writers[] = {{time_to_string, "%Y-%m-%d %H:%M:%S"},
                 {time_to_datestring, "%Y-%m-%d"},
                 {convert_time_to_string, "%a, %d %b %Y %H:%M:%S GMT"},  // local, whatever it says
                 {convert_time_to_string2, "%A, %d-%b-%Y %H:%M:%S GMT"}};
  for (int i = 0; i < 1000; ++i) {
    const time_t t = random.below(0x7FFF'FFFF);
    char text[64], expected[64];
    for (const auto &writer : writers) {
      const size_t n = strftime(expected, sizeof expected, writer.format, localtime(&t));
      ASSERT_EQ(writer.write(t, text, sizeof text), static_cast<int>(n));
      ASSERT_STREQ(text, expected);
    }
    ASSERT_EQ(time_to_string(t, text, sizeof text), 19);
    const time_t read = get_time_from_string(text, -1);
    time_to_string(read, expected, sizeof expected);
    ASSERT_STREQ(expected, text);  // the hour that a change of clocks repeats has two readings
    ASSERT_TRUE(read == t || std::abs(read - t) == 3600) << text;
  }
}

}  // namespace

TEST(time_text, in_three_time_zones) {
  const struct {
    const char *name;
    int winter_east, summer_east;
  } zones[] = {{"UTC0", 0, 0},
               {"CET-1CEST,M3.5.0,M10.5.0/3", 3600, 7200},
               {"NST3:30NDT,M3.2.0,M11.1.0", -12600, -9000}};
  for (const auto &zone : zones) {
    const auto check = [&] {
      setenv("TZ", zone.name, 1);
      tzset();
      expect_both_forms(zone.winter_east, zone.summer_east);
      expect_texts_as_strftime();
      return testing::Test::HasFailure() ? 1 : 0;
    };
    EXPECT_EQ(in_child(check), 0) << zone.name;
  }
}

TEST(time_text, lengths_and_null) {
  const std::string text = "2009-01-02 10:20:30", blanks(45, ' ');
  const time_t t = get_time_from_string(text.c_str(), 19);
  EXPECT_GT(t, 0);
  EXPECT_EQ(get_time_from_string((text + "999").c_str(), 19), t);
  EXPECT_EQ(get_time_from_string((text + blanks.substr(1)).c_str(), -1), t);
  EXPECT_EQ(get_time_from_string((text + blanks).c_str(), -1), -1);
  EXPECT_EQ(get_time_from_string(text.c_str(), 18), -1);
  char buf[20] = "x";
  const auto writers = {time_to_string, time_to_datestring, convert_time_to_string,
                        convert_time_to_string2};
  for (const auto write : writers) {
    EXPECT_EQ(write(t, buf, 1), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(write(INT64_MAX, buf, 20), -1);
  }
  EXPECT_EQ(time_to_string(t, buf, 19), 0);
  EXPECT_EQ(time_to_string(t, buf, 20), 19);
  frame_t *frame = nullptr;
  EXPECT_EQ(time_to_frame(t, &frame), 19);
  EXPECT_EQ(std::memcmp(bytePointer(frame), text.data(), 19), 0);
  deleteFrame(&frame);
}
