// A private working directory for one test, removed with everything in it when the test ends.
#pragma once

#include <string>

namespace tidewatch_test {

class ScratchDir {
 public:
  // Creates a fresh directory under the test temp folder; path() is empty if that failed.
  explicit ScratchDir(const char* label);
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return m_path; }
  // Writes `content` to the file `name` inside the directory; false on any error.
  bool Write(const std::string& name, const std::string& content) const;
  // The content of `name` inside the directory; "<missing>" when it cannot be read.
  std::string Read(const std::string& name) const;
  // Copies the file at `from` to `name` inside the directory, making `name`'s folder first.
  bool CopyIn(const std::string& from, const std::string& name) const;

  // Makes the directory the working directory, for code that uses relative paths, until Leave()
  // or the end of the ScratchDir; false when either change failed.
  bool Enter();
  bool Leave();

 private:
  std::string m_path;
  std::string m_left;  // the working directory before Enter(); empty when not entered
};

}  // namespace tidewatch_test
