// Files, the trace file and the dumps, in a folder of their own.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "adif/fileutil.h"
#include "adif/kalloc.h"
#include "adif/trace.h"
#include "support/support.h"

TEST(files, rollover_drops_lines) {
  const Folder folder;
  const std::string file = folder / "log", wide(1023, 'w');
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
               {wide.substr(1) + "\ny\n", 1, "y\n"}};
  for (const auto &c : cases) {
    write_file(file, c.before);
    chmod(file.c_str(), 0666);
    EXPECT_EQ(file_rollover(file.c_str(), c.skip), 0);
    EXPECT_EQ(read_file(file), c.after);
    file_attributes now;
    EXPECT_EQ(file_attr(file.c_str(), &now), 0);
    EXPECT_EQ(now.mode, 0666U);  // whatever the umask
  }
  write_file(file, wide);
  const auto on_a_full_disk = [&] {
    const rlimit tight{10, 10};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &tight);
    return -file_rollover(file.c_str(), 0);
  };
  EXPECT_EQ(in_child(on_a_full_disk), 1);
  EXPECT_EQ(read_file(file), wide);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path), {}), 1);
  for (const char *path :
       {"/no/such/file", folder.path.c_str(), static_cast<const char *>(nullptr)})
    EXPECT_EQ(file_rollover(path, 0), -1);
}

TEST(files, queries_tell_kinds_apart) {
  const Folder folder;
  const std::string deep = folder / "a/b//c/", file = deep + "file", fifo = folder / "fifo";
  for (int i = 0; i < 2; ++i) EXPECT_EQ(file_dir_create(deep.c_str()), 0);
  EXPECT_EQ(file_write(file.c_str(), "12345", 5), 5);
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string &path : {file + "/below", file, std::string()})
    EXPECT_EQ(file_dir_create(path.c_str()), -1);

  const struct {
    const char *path;
    int exists, regular, directory;
  } cases[] = {{file.c_str(), 1, 1, 0}, {deep.c_str(), 1, 0, 1}, {fifo.c_str(), 1, 0, 0},
               {"/no/such", 0, 0, 0},   {"/dev/null", 1, 0, 0},  {"", 0, 0, 0},
               {nullptr, 0, 0, 0}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path ? c.path : "null");
    EXPECT_EQ(file_exist(c.path), c.exists);
    EXPECT_EQ(is_regular_file(c.path), c.regular);
    EXPECT_EQ(file_size(c.path) >= 0, c.exists == 1);
    file_attributes attributes{};
    EXPECT_EQ(file_attr(c.path, &attributes), c.exists - 1);
    EXPECT_EQ(attributes.is_directory, c.directory);
    int64_t size = 7;
    const adif::kptr<uint8_t> bytes(file_read(c.path, &size));  // must not wait for the FIFO
    EXPECT_STREQ(reinterpret_cast<const char *>(bytes.get()), c.regular ? "12345" : nullptr);
    EXPECT_EQ(size, c.regular ? 5 : 0);
  }
  for (int64_t result : {file_write(fifo.c_str(), "x", 1), file_write(file.c_str(), nullptr, 1),
                         file_write(file.c_str(), "x", -1), file_write(nullptr, "x", 1)})
    EXPECT_EQ(result, -1);
  EXPECT_EQ(read_file(file), "12345");
  EXPECT_EQ(file_write(file.c_str(), nullptr, 0) + file_size(file.c_str()), 0);
  FILE *stream = fopen(file.c_str(), "r");
  EXPECT_TRUE(file_is_valid(stream) == 1 && file_is_valid(nullptr) == 0);
  fclose(stream);
}

TEST(files, trace_is_begun_once_and_takes_lines_from_all_threads) {
  const Folder folder;
  const auto home = std::filesystem::current_path();
  std::filesystem::current_path(folder.path);
  write_file("log.txt", "of an earlier run\n");
  Threads(4, [](int i) {
    for (int k = 0; k < 200; ++k) EXPECT_EQ(tolog("%d %03d\n", i, k), 6);
  }).join();
  initTrace();  // open already
  EXPECT_EQ(tolog(nullptr), -1);
  for (int i = 0; i < 2; ++i) destroyTrace();
  EXPECT_EQ(file_size("log.txt"), 4 * 200 * 6);
  EXPECT_EQ(tolog("more\n"), 5);
  destroyTrace();
  EXPECT_EQ(file_size("log.txt"), 4 * 200 * 6 + 5) << "opened again, it keeps what it has";
  std::filesystem::remove("log.txt");
  std::filesystem::create_directory("log.txt");
  EXPECT_LT(tolog("x"), 0);
  std::filesystem::current_path(home);
}

TEST(files, dumps) {
  const Folder folder;
  const std::string file = folder / "dump";
  FILE *stream = fopen(file.c_str(), "w+");
  EXPECT_EQ(printOctetToFile(stream, "0123456789abcdef\x7F ", 18), 2);
  fclose(stream);
  EXPECT_EQ(read_file(file),
            "0x0000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
            "0x0010  7F 20                                            . \n");
  EXPECT_STREQ(get_name("/a/b.c"), "b.c");
}
