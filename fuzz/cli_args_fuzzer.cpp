// The tool's command line: DoMain on arbitrary argument vectors (the input split at NUL bytes into
// argv[1..]), with no service reachable. Every run must come back with one of the statuses the tool
// can give without a service: -1 for a usage error, 0 for a value that did not convert (or a
// created session, whose id is the send-failure code), 9 when the command could not be sent.
// Runs in a private working directory, so that "./current_session" lands there, with standard
// output discarded. That file is outside input too: when the first word starts with '@', the rest
// of it becomes the file's content instead of an argument; otherwise there is no file.
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "cli/session_file.h"
#include "cli/tide_watch_ctrl.h"
#include "fuzz/fuzz_check.h"

namespace {

constexpr size_t kMaxWords = 16;

std::string g_workDir;

void RemoveWorkDir() {
  unlink(kCurSessionPath);
  if (chdir("/") == 0) rmdir(g_workDir.c_str());
}

// --run-trap-receiver never returns. The long-option parser takes any unambiguous abbreviation,
// with one dash or two and with an "=value" glued on, so a word that could name it is skipped.
bool MaySelectTrapReceiver(const std::string& word) {
  if (word.empty() || word[0] != '-') return false;
  size_t begin = word.find_first_not_of('-');
  if (begin == std::string::npos) return false;
  std::string name = word.substr(begin, word.find('=', begin) - begin);
  static const std::string kTrapReceiver = "run-trap-receiver";
  return !name.empty() && kTrapReceiver.compare(0, name.size(), name) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // Nothing listens under this prefix, and nothing waits for it to appear.
  setenv("TIDEWATCH_HAL_WAIT_MS", "0", 1);
  setenv("TIDEWATCH_HAL_SOCKET_PREFIX",
         ("cli-args-fuzzer-no-service-" + std::to_string(getpid()) + "-").c_str(), 0);
  unsetenv("TIDEWATCH_HOST_PROPERTIES");
  std::string dir = tidewatch_fuzz::ScratchDir() + "/cli_args_fuzzer.XXXXXX";
  if (mkdtemp(&dir[0]) == nullptr || chdir(dir.c_str()) != 0) {
    perror("cli_args_fuzzer: working directory");
    abort();
  }
  g_workDir = dir;
  atexit(RemoveWorkDir);
  int null = open("/dev/null", O_WRONLY);
  if (null < 0 || dup2(null, STDOUT_FILENO) < 0) {
    perror("cli_args_fuzzer: /dev/null");
    abort();
  }
  close(null);
  opterr = 0;  // the option parser's own diagnostics would go to standard error
  tidewatch_fuzz::QuietLog(libtidewatch::kLogVerbose);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> words;
  const char* p = reinterpret_cast<const char*>(data);
  const char* end = p + size;
  while (p < end && words.size() < kMaxWords) {
    const char* nul = static_cast<const char*>(memchr(p, '\0', static_cast<size_t>(end - p)));
    const char* wordEnd = nul != nullptr ? nul : end;
    words.emplace_back(p, wordEnd);
    p = wordEnd + 1;
  }
  for (const std::string& word : words) {
    if (MaySelectTrapReceiver(word)) return 0;
  }
  if (!words.empty() && !words[0].empty() && words[0][0] == '@') {
    FILE* f = fopen(kCurSessionPath, "w");
    FUZZ_CHECK(f != nullptr);
    fwrite(words[0].data() + 1, 1, words[0].size() - 1, f);
    FUZZ_CHECK(fclose(f) == 0);
    words.erase(words.begin());
  } else {
    unlink(kCurSessionPath);
  }

  // The words live in one buffer each, exactly as long as the word, as the kernel lays out argv.
  std::vector<std::vector<char>> storage;
  storage.emplace_back(std::begin("tide_watch_ctrl"), std::end("tide_watch_ctrl"));
  for (const std::string& word : words) {
    storage.emplace_back(word.begin(), word.end());
    storage.back().push_back('\0');
  }
  std::vector<char*> argv;
  for (std::vector<char>& s : storage) argv.push_back(s.data());
  argv.push_back(nullptr);

  int status = 0;
  try {
    status = DoMain(static_cast<int>(argv.size() - 1), argv.data());
  } catch (const std::exception& e) {
    fprintf(stderr, "unexpected exception: %s\n", e.what());
    FUZZ_CHECK(false);
  }
  fflush(stdout);
  FUZZ_CHECK(status == -1 || status == 0 || status == 9);
  return 0;
}
