// Configuration files: what is read, what is refused, what is written back.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <limits>
#include <memory>
#include <regex>

#include "adif/confile.h"
#include "adif/kalloc.h"
#include "adif/line_sink.h"
#include "adif/profile.h"
#include "support/support.h"

namespace {

using Conf = std::unique_ptr<conf_mgmt, decltype([](conf_mgmt *conf) { conf_mgmt_cleanup(conf); })>;
using Profile =
    std::unique_ptr<profile_section, decltype([](profile_section *p) { FreeProfile(p); })>;

// A profile as text: "[section]key=value;key=value;[section]..."
std::string shape(const Profile &profile) {
  if (profile == nullptr) return "none";
  std::string text;
  for (const profile_section *s = profile.get(); s != nullptr; s = s->next) {
    text += "[" + std::string(s->name) + "]";
    for (const profile_key *k = s->first_key; k != nullptr; k = k->next) {
      text += std::string(k->key) + "=" + k->value + ";";
    }
  }
  return text;
}

Profile parse(const std::string &text) {
  return Profile(ParseProfile(text.data(), static_cast<int64_t>(text.size()), "x"));
}

TEST(Profile, EveryKindOfLine) {
  const std::string k256(256, 'k'), v2048(2048, 'v'), n512(512, 'n'), comment(5000, '#');
  const struct {
    std::string text, expected;
  } rows[] = {
      {"", "[]"},
      {"# only\n\n \t\r\n  # comments\n", "[]"},
      {"a = b = c\n", "[]a=b = c;"},
      {" a=b # note\r\n\tc\t=\td\t", "[]a=b;c=d;"},
      {"a=#b\nc=", "[]a=;c=;"},
      {"a=1\n[ net ]\nb=2\n[]\nc=3\n[net]\nb=4", "[]a=1;[net]b=2;[]c=3;[net]b=4;"},
      {"[net]#c\na=1", "[][net]a=1;"},
      {"[net] # c", "none"},
      {"[a=b] # c", "[][a=b];"},
      {"[a#b]\n", "none"},
      {"[", "none"},
      {"=x", "none"},
      {"a=1\nword\nb=2", "none"},
      {std::string("a=1\0b=2\nc\0=3\n", 13), "none"},
      {std::string("a=1\0b=2\n\0junk\nc=3\0", 18), "[]a=1;c=3;"},
      {k256 + "k=" + v2048 + "v\n[" + n512 + "n]", "[]" + k256 + "=" + v2048 + ";[" + n512 + "]"},
      // Pieces of 4095 characters are lines of their own.
      {"a=" + std::string(4093, 'x') + "b=1\n", "[]a=" + std::string(2048, 'x') + ";b=1;"},
      {"a=" + std::string(4094, 'x') + "\n", "none"},
      {comment, "[]"},
  };
  for (const auto &row : rows) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(shape(parse(row.text)), row.expected) << row.text.substr(0, 60);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              row.expected == "none" ? "profile x format not support\n" : "");
  }
}

TEST(Profile, WithALineSinkNothingReachesStandardOutput) {
  const Folder folder;
  static std::string said;
  said = folder / "said";
  testing::internal::CaptureStdout();
  const int status = in_child([&] {
    adif::set_line_sink([](const char *line) { std::ofstream(said, std::ios::app) << line; });
    FreeProfile(parse("bad\n").release());
    adif::fail_allocations(1);
    FreeProfile(parse("a=1\n").release());
    return 0;
  });
  EXPECT_EQ(status, 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(std::regex_match(
      read_file(said), std::regex("profile x format not support\n"
                                  "file adif/confile.cpp, line \\d+ memory NULL! exit\\(1\\)\n")))
      << read_file(said);
}

class Confile : public testing::Test {
 protected:
  Conf load(const std::string &text) {
    write_file(path_, text);
    return Conf(conf_mgmt_init(path_.c_str()));
  }

  std::string saved(const Conf &conf) {
    EXPECT_EQ(conf_mgmt_save(conf.get(), path_.c_str()), 0);
    return read_file(path_);
  }

  const Folder folder_;
  const std::string path_ = folder_ / "conf";
};

TEST_F(Confile, GettersConvertAndTellWhatIsMissing) {
  const Conf conf = load(
      "int = 12x\nneg=-5\nmax=4294967295\nbeyond=99999999999999999999\nhex=0xfF\nrate=-2.5e3\n"
      "yes=YES\nno=False\ntwo=2\nword=abc\n[NET]\nPort=1\n[net]\nonly=second\n");
  conf_mgmt *const c = conf.get();
  const struct {
    const char *key;
    int32_t as_int;
    uint32_t as_ulong, as_hexlong;
    double as_double;
    int as_bool;
  } rows[] = {
      {"int", 12, 12, 0x12, 12, 1},
      {"neg", -5, UINT32_MAX - 4, UINT32_MAX - 4, -5, 1},
      {"max", INT32_MAX, UINT32_MAX, UINT32_MAX, 4294967295.0, 1},
      {"beyond", INT32_MAX, UINT32_MAX, UINT32_MAX, 1e20, 1},
      {"HEX", 0, 0, 255, 255, 0},
      {"rate", -2, UINT32_MAX - 1, UINT32_MAX - 1, -2500, 1},
      {"yes", 0, 0, 0, 0, 1},
      {"no", 0, 0, 0xfa, 0, 0},  // "False" begins with hexadecimal digits
      {"two", 2, 2, 2, 2, 1},
      {"word", 0, 0, 0xabc, 0, 0},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.key);
    EXPECT_EQ(conf_get_int(c, nullptr, row.key), row.as_int);
    EXPECT_EQ(conf_get_ulong(c, nullptr, row.key), row.as_ulong);
    EXPECT_EQ(conf_get_hexlong(c, "", row.key), row.as_hexlong);
    EXPECT_EQ(conf_get_double(c, nullptr, row.key), row.as_double);
    EXPECT_EQ(conf_get_bool(c, "", row.key), row.as_bool);
    EXPECT_EQ(conf_get_string(c, "no such section", row.key), nullptr);
  }
  EXPECT_STREQ(conf_get_string(c, "net", "PORT"), "1");
  EXPECT_EQ(conf_get_string(c, "net", "only"), nullptr) << "only the first section counts";
}

TEST_F(Confile, WhatIsSetIsSavedAndReadBack) {
  const Conf conf = load("# lost\nfirst = 1 # lost\n[A]\none=1\ntwo=2\n\n[B]\n");
  conf_mgmt *const c = conf.get();
  EXPECT_EQ(conf_set_string(c, "a", "TWO", "zwei"), 0);
  EXPECT_EQ(conf_set_int(c, nullptr, "front", INT32_MIN), 0);
  EXPECT_EQ(conf_set_ulong(c, "B", "ulong", UINT32_MAX), 0);
  EXPECT_EQ(conf_set_hexlong(c, "B", "hex", 0xDEADBEEF), 0);
  EXPECT_EQ(conf_set_bool(c, "B", "bool", 200), 0);
  EXPECT_EQ(conf_set_string(c, "C", "lost", "x"), 0);
  EXPECT_EQ(conf_get_string(c, "C", "lost"), nullptr) << "a section that isn't there takes nothing";
  EXPECT_EQ(saved(conf),
            "front=-2147483648\nfirst=1\n\n[A]\none=1\ntwo=zwei\n\n"
            "[B]\nbool=1\nhex=deadbeef\nulong=4294967295\n");
  EXPECT_EQ(conf_mgmt_read(c, c->path), 0) << "its own path";
  conf_set_string(c, "B", "next", path_.c_str());
  EXPECT_EQ(conf_mgmt_read(c, conf_get_string(c, "B", "next")), 0) << "a value of its own";
  EXPECT_EQ(conf_get_ulong(c, "b", "ulong"), UINT32_MAX);

  conf_set_string(c, "A", "one", conf_get_string(c, "A", "two"));
  conf_set_string(c, "A", "one", conf_get_string(c, "A", "one"));
  EXPECT_STREQ(conf_get_string(c, "A", "one"), "zwei") << "a stored text given back";
  conf_set_string(c, "A", "one", std::string(3000, 'v').c_str());
  EXPECT_EQ(conf_get_string(c, "A", "one"), std::string(2048, 'v'));
  for (const double value : {0.0, -1e308, 1.25, 1e-9, std::numeric_limits<double>::max()}) {
    conf_set_double(c, "A", "d", value);
    EXPECT_NEAR(conf_get_double(c, "A", "d"), value, 1e-6 + std::fabs(value) * 1e-15);
  }
  const std::string key(300, 'k');
  conf_set_int(c, "A", key.c_str(), 1);
  conf_set_int(c, "A", key.c_str(), 2);
  EXPECT_EQ(conf_get_int(c, "A", key.substr(0, 256).c_str()), 2) << "cut, and set only once";
  EXPECT_EQ(saved(conf).find(key.substr(0, 256)), saved(conf).rfind(key.substr(0, 256)));
}

TEST_F(Confile, FilesThatAreNoneAreEmptyProfilesAndNeverBlock) {
  const std::string fifo = folder_ / "fifo", big = folder_ / "big";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  write_file(big, std::string(1024 * 1024 - 1, '#') + "\na=1\n");
  for (const std::string &path :
       {folder_ / "missing", folder_.path, fifo, big, std::string("/dev/zero")}) {
    SCOPED_TRACE(path);
    const Conf conf(conf_mgmt_init(path.c_str()));
    EXPECT_EQ(conf_get_ulong(conf.get(), nullptr, "a"), 16777215u);
    EXPECT_EQ(conf_set_int(conf.get(), nullptr, "a", 7), 0);
    EXPECT_EQ(conf_get_int(conf.get(), nullptr, "a"), 7) << "the unnamed section is there";
  }
  EXPECT_EQ(conf_mgmt_save(Conf(conf_mgmt_init(folder_.path.c_str())).get(), fifo.c_str()), 0);
  const Conf largest = load(std::string(1024 * 1024 - 4, '\n') + "a=1\n");
  EXPECT_EQ(conf_get_int(largest.get(), nullptr, "a"), 1);
  EXPECT_EQ(load("a=1\nbad\n")->profile, nullptr) << "malformed: a handle without a profile";
}

}  // namespace
