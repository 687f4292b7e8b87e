#include "test_util.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

TempDir::TempDir() {
    char templ[] = "/tmp/laytran-test-XXXXXX";
    if (!mkdtemp(templ)) throw std::runtime_error("mkdtemp failed");
    path_ = templ;
}

TempDir::~TempDir() {
    std::string command = "rm -rf '" + path_ + "'";
    if (system(command.c_str()) != 0) perror("rm");
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool file_exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::string source_path(const std::string &relative) {
    return std::string(LAYTRAN_SOURCE_DIR) + "/" + relative;
}

RunResult run_laytran(const std::vector<std::string> &args, const std::string &cwd,
                      const std::string &input, const std::string &argv0,
                      const std::vector<std::string> &env) {
    return run_program(LAYTRAN_EXE, args, cwd, input, argv0, env);
}

RunResult run_program(const char *exe, const std::vector<std::string> &args, const std::string &cwd,
                      const std::string &input, const std::string &argv0,
                      const std::vector<std::string> &env) {
    TempDir io;
    std::string in_path = io.file("stdin"), out_path = io.file("stdout"),
                err_path = io.file("stderr");
    write_file(in_path, input);
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        int in = open(in_path.c_str(), O_RDONLY);
        int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0) _exit(127);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(127);
        for (const std::string &e : env) putenv(strdup(e.c_str()));
        std::vector<char *> argv;
        argv.push_back(const_cast<char *>(argv0.c_str()));
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(exe, argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    RunResult r;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = read_file(out_path);
    r.err = read_file(err_path);
    return r;
}
