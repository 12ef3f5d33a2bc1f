// Files, the trace file and the dumps, in a folder of their own.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "adif/fileutil.h"
#include "adif/kalloc.h"
#include "adif/trace.h"

namespace {

class files : public testing::Test {
 protected:
  void SetUp() override {
    std::string form = testing::TempDir() + "filesXXXXXX";
    ASSERT_NE(mkdtemp(form.data()), nullptr);
    folder_ = form;
    home_ = std::filesystem::current_path();
  }
  void TearDown() override {
    std::filesystem::current_path(home_);
    std::filesystem::remove_all(folder_);
  }
  std::string path(const char *name) const { return folder_ / name; }
  static std::string content(const std::string &path) {
    int64_t size = 0;
    const adif::kptr<uint8_t> bytes(file_read(path.c_str(), &size));
    return bytes ? std::string(bytes.get(), bytes.get() + size) : "<unreadable>";
  }
  static void write(const std::string &path, const std::string &text) {
    ASSERT_EQ(file_write(path.c_str(), text.data(), static_cast<int64_t>(text.size())),
              static_cast<int64_t>(text.size()));
  }

  std::filesystem::path folder_, home_;
};

}  // namespace

TEST_F(files, rollover_drops_lines) {
  const std::string wide(1023, 'w');
  const struct {
    std::string before;
    int skip;
    std::string after;
  } cases[] = {{"a\nb\nc\n", 0, "a\nb\nc\n"},
               {"a\nb\nc\n", -1, "a\nb\nc\n"},
               {"a\nb\nc", 2, "c"},
               {"a\nb\nc", 9, ""},
               {std::string("a\0b\n\0\n", 6), 1, std::string("\0\n", 2)},
               {wide + "x\ny\n", 1, "x\ny\n"},  // a line above the limit counts twice
               {wide + "\ny\n", 1, "\ny\n"},
               {wide.substr(500) + "\n" + wide.substr(500) + "\nz\n", 2, "z\n"},
               {wide.substr(1) + "\ny\n", 1, "y\n"},
               {"", 3, ""}};
  const std::string file = path("log");
  for (const auto &c : cases) {
    write(file, c.before);
    ASSERT_EQ(chmod(file.c_str(), 0666), 0);
    EXPECT_EQ(file_rollover(file.c_str(), c.skip), 0);
    EXPECT_EQ(content(file), c.after);
    file_attributes now;
    EXPECT_EQ(file_attr(file.c_str(), &now), 0);
    EXPECT_EQ(now.mode, 0666U);  // whatever the umask
  }
  write(file, wide);
  rlimit limit;
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit tight{10, limit.rlim_max};
  const auto old = signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &tight);
  EXPECT_EQ(file_rollover(file.c_str(), 0), -1);  // as on a full disk
  setrlimit(RLIMIT_FSIZE, &limit);
  signal(SIGXFSZ, old);
  EXPECT_EQ(content(file), wide);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_), {}), 1);
  EXPECT_EQ(file_rollover(path("missing").c_str(), 0), -1);
  EXPECT_EQ(file_rollover(nullptr, 0), -1);
  EXPECT_EQ(file_rollover(folder_.c_str(), 0), -1);
}

TEST_F(files, queries_tell_kinds_apart) {
  const std::string deep = path("a/b//c/");
  EXPECT_EQ(file_dir_create(deep.c_str()), 0);
  EXPECT_EQ(file_dir_create(deep.c_str()), 0);
  const std::string file = path("a/b/c/file"), fifo = path("fifo"), missing = path("missing");
  write(file, "12345");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(file_dir_create((file + "/below").c_str()), -1);
  EXPECT_EQ(file_dir_create(file.c_str()), -1);
  EXPECT_EQ(file_dir_create(""), -1);

  const struct {
    const char *path;
    int exists, regular;
    bool readable;
  } cases[] = {{file.c_str(), 1, 1, true},  {deep.c_str(), 1, 0, false},
               {fifo.c_str(), 1, 0, false}, {missing.c_str(), 0, 0, false},
               {"/dev/null", 1, 0, false},  {"", 0, 0, false},
               {nullptr, 0, 0, false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path ? c.path : "null");
    EXPECT_EQ(file_exist(c.path), c.exists);
    EXPECT_EQ(is_regular_file(c.path), c.regular);
    EXPECT_EQ(file_size(c.path) >= 0, c.exists == 1);
    file_attributes attributes;
    EXPECT_EQ(file_attr(c.path, &attributes), c.exists - 1);
    int64_t size = 7;
    const adif::kptr<uint8_t> bytes(file_read(c.path, &size));  // must not wait for the FIFO
    EXPECT_EQ(bytes != nullptr, c.readable);
    EXPECT_EQ(size, c.readable ? 5 : 0);
  }
  EXPECT_EQ(file_size(file.c_str()), 5);
  EXPECT_EQ(file_write(fifo.c_str(), "x", 1), -1);
  EXPECT_EQ(file_write(file.c_str(), nullptr, 1), -1);
  EXPECT_EQ(file_write(file.c_str(), "x", -1), -1);
  EXPECT_EQ(file_write(file.c_str(), nullptr, 0), 0);
  EXPECT_EQ(content(file), "");

  FILE *stream = fopen(file.c_str(), "r");
  EXPECT_EQ(file_is_valid(stream), 1);
  EXPECT_EQ(file_is_valid(nullptr), 0);
  fclose(stream);
}

TEST_F(files, trace_is_begun_once_and_takes_lines_from_all_threads) {
  std::filesystem::current_path(folder_);
  write("log.txt", "of an earlier run\n");
  std::vector<std::thread> writers;
  for (int i = 0; i < 4; ++i) {
    writers.emplace_back([i] {
      for (int k = 0; k < 200; ++k) EXPECT_EQ(tolog("%d %03d\n", i, k), 6);
    });
  }
  for (std::thread &writer : writers) writer.join();
  initTrace();  // open already
  EXPECT_EQ(tolog(nullptr), -1);
  destroyTrace();
  destroyTrace();
  EXPECT_EQ(file_size("log.txt"), 4 * 200 * 6);
  std::filesystem::remove("log.txt");
  std::filesystem::create_directory("log.txt");
  EXPECT_LT(tolog("x"), 0);
}

TEST_F(files, dumps) {
  FILE *stream = fopen(path("dump").c_str(), "w+");
  EXPECT_EQ(printOctetToFile(stream, "0123456789abcdef\x7F ", 18), 2);
  EXPECT_EQ(printOctetToFile(stream, "x", 0), 0);
  EXPECT_EQ(printOctetToFile(stream, "x", -1), 0);
  EXPECT_EQ(printOctetToFile(stream, nullptr, 1), -1);
  fclose(stream);
  EXPECT_EQ(content(path("dump")),
            "0x0000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
            "0x0010  7F 20                                            . \n");
  EXPECT_STREQ(get_name("/a/b.c"), "b.c");
  EXPECT_STREQ(get_name("b.c"), "b.c");
  EXPECT_EQ(get_name(nullptr), nullptr);
}
