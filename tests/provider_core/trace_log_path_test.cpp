// A log file that cannot be opened drops its lines without failing, the
// open is retried at the next line, and the first path that opens is kept.
// Its own main: the provider fixes its log path at the first successful
// open, so no line may be written before the test chooses the path.
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

#include "log/trace_log.h"
#include "tests/support/provider_test_support.h"

namespace {

std::string readAll(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream content;
  content << file.rdbuf();
  return content.str();
}

TEST(TraceLogPath, UnopenablePathDropsLinesAndIsRetried) {
  std::string directory = tembra::test::uniqueTempPath("tembra_log_dir_");
  std::string path = directory + "/trace.log";
  tembra::test::setEnv("TEMBRA_KEY_PROV_LOG_PATH", path.c_str());

  LOG_ERROR_AS("pathProbe", "dropped %d", 1);
  LOG_INFO_AS("pathProbe", "dropped %d", 2);
  EXPECT_FALSE(std::filesystem::exists(directory));

  ASSERT_TRUE(std::filesystem::create_directory(directory));
#ifndef _WIN32
  // A log left readable by others is narrowed to its owner at the open:
  // the log may hold PINs.
  std::ofstream(path) << "";
  std::filesystem::permissions(path, std::filesystem::perms(0644));
#endif
  LOG_ERROR_AS("pathProbe", "kept");
#ifndef _WIN32
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
#endif

  // The path is now fixed: a new value of the variable is not followed.
  std::string other = directory + "/other.log";
  tembra::test::setEnv("TEMBRA_KEY_PROV_LOG_PATH", other.c_str());
  LOG_ERROR_AS("pathProbe", "still here");

  std::string content = readAll(path);
  EXPECT_EQ(content.find("dropped"), std::string::npos) << content;
  EXPECT_NE(content.find("[ERROR] [pathProbe] kept "), std::string::npos) << content;
  EXPECT_NE(content.find("[ERROR] [pathProbe] still here "), std::string::npos) << content;
  EXPECT_FALSE(std::filesystem::exists(other));

  std::error_code error;
  std::filesystem::remove_all(directory, error);
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
