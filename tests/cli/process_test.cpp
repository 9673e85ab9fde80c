// The built `tembra` run as a user runs it, in a child process: standard
// streams that are pipes or a pseudo-terminal, the environment the user has,
// and the files it leaves behind. What only shows from outside lives here:
// byte-exact binary output in a pipeline, refusal of binary output on a
// terminal, PIN prompts without echo and asked twice, the trace log's mode
// and contents, and bounded memory on a large input.
#ifndef _WIN32

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/cli/cli_run.h"
#include "tests/support/provider_test_support.h"

extern char **environ;

namespace tembra {
namespace {

// How a child's standard stream is connected.
enum class Stream { Pipe, Terminal };

struct Child {
  std::vector<std::string> words;
  std::map<std::string, const char *> env;  // nullptr: unset
  std::string input;                        // written to a piped standard input
  Stream in = Stream::Pipe;
  Stream out = Stream::Pipe;
  // On a terminal standard input: each answer is typed once the terminal
  // shows its prompt (the program flushes typed-ahead input when it turns
  // echo off).
  std::vector<std::pair<std::string, std::string>> dialogue;
};

struct Result {
  int status = -1;
  std::string out;       // standard output (pipe), or the terminal's text
  std::string err;       // standard error (pipe), or the terminal's text
  std::string terminal;  // everything the terminal showed
  long maxRssKiB = 0;
};

Result run(const Child &child) {
  int inPipe[2], outPipe[2], errPipe[2];
  EXPECT_EQ(pipe(inPipe), 0);
  EXPECT_EQ(pipe(outPipe), 0);
  EXPECT_EQ(pipe(errPipe), 0);
  const bool useTerminal = child.in == Stream::Terminal || child.out == Stream::Terminal;
  int master = -1;
  std::string slaveName;
  if (useTerminal) {
    master = posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_GE(master, 0);
    EXPECT_EQ(grantpt(master), 0);
    EXPECT_EQ(unlockpt(master), 0);
    slaveName = ptsname(master);
  }
  const pid_t pid = fork();
  if (pid == 0) {
    int slave = -1;
    if (useTerminal) {
      setsid();
      slave = open(slaveName.c_str(), O_RDWR);
    }
    dup2(child.in == Stream::Terminal ? slave : inPipe[0], 0);
    dup2(child.out == Stream::Terminal ? slave : outPipe[1], 1);
    // Prompts go to standard error: on the terminal when standard input is.
    dup2(child.in == Stream::Terminal ? slave : errPipe[1], 2);
    for (const auto &entry : child.env) {
      if (entry.second == nullptr) {
        unsetenv(entry.first.c_str());
      } else {
        setenv(entry.first.c_str(), entry.second, 1);
      }
    }
    std::vector<char *> argv;
    static std::string program = TEMBRA_CLI_BINARY;
    argv.push_back(&program[0]);
    std::vector<std::string> words = child.words;
    for (std::string &word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(inPipe[0]);
  close(outPipe[1]);
  close(errPipe[1]);
  if (!child.input.empty()) {
    EXPECT_EQ(write(inPipe[1], child.input.data(), child.input.size()),
              ssize_t(child.input.size()));
  }
  close(inPipe[1]);

  Result result;
  size_t answered = 0;
  std::vector<pollfd> fds = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  if (master >= 0) fds.push_back({master, POLLIN, 0});
  std::string *sinks[] = {&result.out, &result.err, &result.terminal};
  int open = int(fds.size());
  while (open > 0 && poll(fds.data(), fds.size(), 20000) > 0) {
    for (size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[65536];
      const ssize_t got = read(fds[i].fd, buffer, sizeof buffer);
      if (got <= 0) {
        fds[i].fd = -1;
        --open;
        continue;
      }
      sinks[i]->append(buffer, size_t(got));
    }
    if (master >= 0 && answered < child.dialogue.size() &&
        result.terminal.find(child.dialogue[answered].first) != std::string::npos) {
      // Wait until echo is off, as it is while the PIN is read.
      usleep(100000);
      const std::string &answer = child.dialogue[answered].second;
      EXPECT_EQ(write(master, answer.data(), answer.size()), ssize_t(answer.size()));
      result.terminal += "<typed>";
      ++answered;
    }
  }
  int status = 0;
  struct rusage usage;
  wait4(pid, &status, 0, &usage);
  close(outPipe[0]);
  close(errPipe[0]);
  if (master >= 0) close(master);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.maxRssKiB = usage.ru_maxrss;
  if (child.out == Stream::Terminal) result.out = result.terminal;
  if (child.in == Stream::Terminal) result.err = result.terminal;
  return result;
}

// A store with one token ("S" SM2, user PIN 11112222, administrator PIN
// 87654321), made by tembra itself; the log goes to the store's temporary
// directory as it would for a user with $TMPDIR set.
class TembraProcess : public test::CliStoreTest {
 protected:
  void SetUp() override {
    writeText("pin", "11112222\n");
    writeText("admin", "87654321\n");
    m_env = {{"TEMBRA_SOFTSKF_DIR", m_store.path().c_str()},
             {"TMPDIR", m_store.path().c_str()},
             {"TEMBRA_KEY_PROV_LOG_PATH", nullptr},
             {"TEMBRA_KEY_PROV_LOG_LEVEL", nullptr}};
    Result made = tembra({"token", "create", "tok", "--container", "S:sm2", "--user-pin-file",
                          path("pin"), "--admin-pin-file", path("admin")});
    ASSERT_EQ(made.status, 0) << made.err;
  }

  Result tembra(std::vector<std::string> words, const std::string &input = std::string()) {
    Child child;
    child.words = std::move(words);
    child.env = m_env;
    child.input = input;
    return run(child);
  }
  // With standard input (prompts, progress) or standard output on a terminal.
  Result onTerminal(std::vector<std::string> words, bool input,
                    std::vector<std::pair<std::string, std::string>> dialogue = {}) {
    Child child;
    child.words = std::move(words);
    child.env = m_env;
    (input ? child.in : child.out) = Stream::Terminal;
    child.dialogue = std::move(dialogue);
    return run(child);
  }

  std::map<std::string, const char *> m_env;
};

// At tembra's default the log holds errors only, no PIN, and is the user's
// own; --trace records the PIN (which is why it warns), still mode 0600.
TEST_F(TembraProcess, TraceLogIsPrivateAndHoldsNoPinByDefault) {
  const std::string log = path("tembra_key_prov.log");
  ASSERT_EQ(tembra({"login", "--pin-file", path("pin")}).status, 0);
  struct stat status;
  if (stat(log.c_str(), &status) == 0) {
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_EQ(readText("tembra_key_prov.log").find("11112222"), std::string::npos);
  }
  Result traced = tembra({"login", "--trace", "--pin-file", path("pin")});
  ASSERT_EQ(traced.status, 0) << traced.err;
  EXPECT_NE(traced.err.find("records PINs"), std::string::npos) << traced.err;
  ASSERT_EQ(stat(log.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_NE(readText("tembra_key_prov.log").find("11112222"), std::string::npos);
}

// `tembra sign | openssl ...`: the signature alone on standard output, byte
// for byte, the summary on standard error; the PIN from standard input.
TEST_F(TembraProcess, SignatureThroughAPipeIsByteExact) {
  writeText("message", "pay 100 to Alice");
  Result key = tembra({"pubkey", "--label", "S", "--pem"});
  ASSERT_EQ(key.status, 0) << key.err;
  Result sign =
      tembra({"sign", "--label", "S", "-i", path("message"), "--pin-file", "-"}, "11112222\n");
  ASSERT_EQ(sign.status, 0) << sign.err;
  EXPECT_NE(sign.err.find("signature: standard output"), std::string::npos) << sign.err;
  Result quiet = tembra(
      {"sign", "--quiet", "--label", "S", "-i", path("message"), "-o", "-", "--pin-file", "-"},
      "11112222\n");
  EXPECT_EQ(quiet.err, "");
#ifdef TEMBRA_TEST_HAVE_OPENSSL
  EXPECT_TRUE(test::openSslVerifies(key.out, "SM3", "pay 100 to Alice", sign.out));
  EXPECT_TRUE(test::openSslVerifies(key.out, "SM3", "pay 100 to Alice", quiet.out));
#endif
}

// Binary output never lands on a terminal unless forced; PEM is text.
TEST_F(TembraProcess, BinaryIsRefusedOnATerminal) {
  struct Case {
    std::vector<std::string> words;
    int status;
  };
  for (const Case &c :
       {Case{{"pubkey", "--label", "S"}, 1}, Case{{"cert", "get", "--label", "S"}, 1},
        Case{{"pubkey", "--label", "S", "--force"}, 0},
        Case{{"pubkey", "--label", "S", "--pem"}, 0}}) {
    Result result = onTerminal(c.words, false);
    EXPECT_EQ(result.status, c.status) << c.words.back() << ": " << result.err;
    if (c.status == 1) {
      EXPECT_NE(result.err.find("refusing to write binary data to the terminal"),
                std::string::npos);
    }
  }
}

// New PINs typed on a terminal are asked twice and never echoed; a typo
// changes nothing; token create asks for both PINs the same way.
TEST_F(TembraProcess, NewPinsAreAskedTwiceWithoutEcho) {
  struct Case {
    std::vector<std::string> words;
    std::vector<std::pair<std::string, std::string>> dialogue;
    int status;
    const char *message;
  };
  const std::vector<Case> cases = {
      {{"passwd", "--pin-file", path("pin")},
       {{"New PIN: ", "22223333\n"}, {"New PIN again: ", "22224444\n"}},
       2,
       "the two PINs typed differ; nothing was changed"},
      {{"passwd", "--pin-file", path("pin")},
       {{"New PIN: ", "22223333\n"}, {"New PIN again: ", "22223333\n"}},
       0,
       "changed"},
      {{"token", "create", "second"},
       {{"New user PIN: ", "33334444\n"},
        {"New user PIN again: ", "33334444\n"},
        {"New administrator PIN: ", "55556666\n"},
        {"New administrator PIN again: ", "55556666\n"}},
       0,
       "token"}};
  for (const Case &c : cases) {
    Result result = onTerminal(c.words, true, c.dialogue);
    EXPECT_EQ(result.status, c.status) << result.terminal;
    EXPECT_NE((result.out + result.terminal).find(c.message), std::string::npos)
        << result.out << result.terminal;
    for (const auto &step : c.dialogue) {
      EXPECT_EQ(result.terminal.find(step.second.substr(0, 8)), std::string::npos)
          << "echoed: " << result.terminal;
    }
  }
  EXPECT_EQ(tembra({"login", "--pin-insecure-arg", "22223333"}).status, 0);
  EXPECT_EQ(tembra({"login", "--token-label", "second", "--pin-insecure-arg", "33334444"}).status,
            0);
}

// A large input is hashed in pieces: memory stays far below its size (a
// whole read of the 48 MiB would take more than twice the bound), with a
// progress bar on a terminal.
TEST_F(TembraProcess, LargeInputTakesBoundedMemory) {
#if defined(__SANITIZE_ADDRESS__)
  // AddressSanitizer holds freed memory back in quarantine: no bound holds.
  const long boundKiB = LONG_MAX;
#else
  const long boundKiB = 24 * 1024;
#endif
  const std::string big = path("big");
  const off_t size = off_t(48) << 20;
  const int fd = ::open(big.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, size), 0);
  close(fd);
  Result sign =
      tembra({"sign", "--label", "S", "-i", big, "-o", path("big.sig"), "--pin-file", path("pin")});
  ASSERT_EQ(sign.status, 0) << sign.err;
  EXPECT_LT(sign.maxRssKiB, boundKiB) << "KiB";
  // On a terminal a progress bar shows while the input is read.
  Result verified = onTerminal({"verify", "--label", "S", "-i", big, "-s", path("big.sig")}, true);
  EXPECT_EQ(verified.status, 0) << verified.terminal;
  EXPECT_LT(verified.maxRssKiB, boundKiB) << "KiB";
  EXPECT_NE(verified.terminal.find("hashing ["), std::string::npos);
  EXPECT_NE(verified.terminal.find("] 100% of 48.0 MiB"), std::string::npos);
}

}  // namespace
}  // namespace tembra

#endif  // !_WIN32
