// Helpers for tests that run the real laytran executable on real files.
#pragma once

#include <string>
#include <vector>

struct RunResult {
    int status;       // process exit code (255 for the run's -1)
    std::string out;  // standard output
    std::string err;  // standard error
};

// Runs laytran with args (argv[0] is argv0) in the directory cwd (the
// current one when empty), feeding input to its standard input.
RunResult run_laytran(const std::vector<std::string> &args, const std::string &cwd = "",
                      const std::string &input = "", const std::string &argv0 = "laytran",
                      const std::vector<std::string> &env = {});
// The same for another executable.
RunResult run_program(const char *exe, const std::vector<std::string> &args,
                      const std::string &cwd = "", const std::string &input = "",
                      const std::string &argv0 = "laytran",
                      const std::vector<std::string> &env = {});

// A fresh directory, removed with everything in it when the object goes.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &bytes);
bool file_exists(const std::string &path);
// Path of a file kept in the repository, relative to its top.
std::string source_path(const std::string &relative);
