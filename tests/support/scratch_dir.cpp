#include "tests/support/scratch_dir.h"

#include <ftw.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

namespace tidewatch_test {
namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

}  // namespace

ScratchDir::ScratchDir(const char* label) {
  std::string tmpl = ::testing::TempDir() + label + "_XXXXXX";
  if (mkdtemp(&tmpl[0]) != nullptr) m_path = tmpl;
}

ScratchDir::~ScratchDir() {
  Leave();
  if (!m_path.empty()) nftw(m_path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

bool ScratchDir::Write(const std::string& name, const std::string& content) const {
  std::ofstream out(m_path + "/" + name, std::ios::binary | std::ios::trunc);
  out << content;
  return static_cast<bool>(out.flush());
}

std::string ScratchDir::Read(const std::string& name) const {
  std::ifstream in(m_path + "/" + name, std::ios::binary);
  if (!in) return "<missing>";
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool ScratchDir::CopyIn(const std::string& from, const std::string& name) const {
  size_t slash = name.rfind('/');
  if (slash != std::string::npos) {
    std::string folder = m_path + "/" + name.substr(0, slash);
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  std::ifstream in(from, std::ios::binary);
  if (!in) return false;
  std::stringstream text;
  text << in.rdbuf();
  return Write(name, text.str());
}

bool ScratchDir::Enter() {
  char cwd[4096];
  if (m_path.empty() || !m_left.empty() || getcwd(cwd, sizeof(cwd)) == nullptr) return false;
  if (chdir(m_path.c_str()) != 0) return false;
  m_left = cwd;
  return true;
}

bool ScratchDir::Leave() {
  if (m_left.empty()) return true;
  bool back = chdir(m_left.c_str()) == 0;
  m_left.clear();
  return back;
}

}  // namespace tidewatch_test
