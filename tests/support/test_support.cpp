// Scratch directories and forked children for the tests.
#include "test_support.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace zrtest {

TempDir::TempDir() {
  const char* base = std::getenv("ZROBJ_TEST_HOME");
  std::string root = base && *base ? std::string(base) + "/tmp" : std::string("/tmp");
  std::filesystem::create_directories(root);
  std::string pattern = root + "/zrtest-XXXXXX";
  char* made = ::mkdtemp(pattern.data());
  path_ = made ? made : pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

ChildResult RunChild(const std::function<int()>& body, int timeout_ms) {
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    int rc = 1;
    rc = body();
    std::fflush(nullptr);
    ::_exit(rc);
  }
  ChildResult result;
  if (pid < 0) return result;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  int status = 0;
  for (;;) {
    const pid_t r = ::waitpid(pid, &status, WNOHANG);
    if (r == pid) break;
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  if (WIFEXITED(status)) {
    result.exited = true;
    result.exit_code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  }
  return result;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

bool WriteFile(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << data;
  return static_cast<bool>(out);
}

}  // namespace zrtest
