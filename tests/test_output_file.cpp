// End-to-end runs on the output file: what replaces a previous file and when,
// and which names are refused. Faults from outside (full device, size limit,
// signals) are in fault_test.sh.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "test_util.h"

namespace {

const char MODEL[] = "$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$HEADEREND\n$$GEOMETRYSTART\n"
                     "$$LAYER/1\n$$POLYLINE/1,1,3,0,0,1,0,1,1\n$$GEOMETRYEND\n";
const char ASSUMED_BINARY[] = "laytran(info): output file format assumed to be binary CLI\n";

// The names in dir, hidden ones included, sorted.
std::string listing(const std::string &dir) {
    std::vector<std::string> names;
    DIR *d = opendir(dir.c_str());
    while (dirent *e = d ? readdir(d) : nullptr) {
        std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    if (d) closedir(d);
    std::sort(names.begin(), names.end());
    std::string all;
    for (const std::string &n : names)
        all += n + " ";
    return all;
}

mode_t mode_of(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

} // namespace

TEST(OutputFile, PreviousFileIsReplacedOnlyByACompletedRun) {
    TempDir d;
    write_file(d.file("in.cli"), MODEL);
    write_file(d.file("bad.cli"), "$$GEOMETRYEND");
    write_file(d.file("out.cli"), "old");
    ASSERT_EQ(chmod(d.file("out.cli").c_str(), 0640), 0);
    RunResult r = run_laytran({"-f", "bad.cli", "-o", "out.cli", "-O", "A"}, d.path());
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(read_file(d.file("out.cli")), "old");
    EXPECT_EQ(listing(d.path()), "bad.cli in.cli out.cli ");

    // A completed run replaces the contents and keeps the mode; a symbolic
    // link stays a link to the replaced file.
    ASSERT_EQ(symlink("out.cli", d.file("link.cli").c_str()), 0);
    r = run_laytran({"-f", "in.cli", "-o", "link.cli", "-O", "A"}, d.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "laytran(info): output file link.cli already exists\n");
    std::string converted = read_file(d.file("out.cli"));
    EXPECT_NE(converted.find("$$POLYLINE/1,1,3,0.,0.,100.,0.,100.,100.\n"), std::string::npos);
    EXPECT_EQ(mode_of(d.file("out.cli")), 0640u);
    struct stat st;
    ASSERT_EQ(lstat(d.file("link.cli").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));

    // A new file gets the mode fopen would give it.
    mode_t mask = umask(022);
    umask(mask);
    r = run_laytran({"-f", "in.cli", "-o", "new.cli", "-O", "A"}, d.path());
    EXPECT_EQ(read_file(d.file("new.cli")), converted);
    EXPECT_EQ(mode_of(d.file("new.cli")), 0666u & ~mask);
    EXPECT_EQ(listing(d.path()), "bad.cli in.cli link.cli new.cli out.cli ");
}

TEST(OutputFile, DirectoriesAreRefusedAndDevicesKeepTheirNames) {
    TempDir d;
    ASSERT_EQ(mkdir(d.file("dir").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(d.file("part.cli").c_str(), 0755), 0);
    for (const char *name : {"dir", "dir/", "missing/", "part"}) {
        RunResult r = run_laytran({"-o", name}, d.path(), MODEL);
        EXPECT_EQ(r.status, 255) << name;
        EXPECT_EQ(r.err, std::string(ASSUMED_BINARY) + "laytran: unable to access (mode:wb) \"" +
                             name + "\"\nlaytran: (Is a directory)\n");
    }
    EXPECT_EQ(listing(d.path()), "dir part.cli ");
    EXPECT_EQ(listing(d.file("dir")), "");

    // A device is written under its own name, without ".cli".
    ASSERT_EQ(symlink("/dev/null", d.file("sink").c_str()), 0);
    RunResult r = run_laytran({"-o", "sink"}, d.path(), MODEL);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err,
              std::string(ASSUMED_BINARY) + "laytran(info): output file sink already exists\n");
    EXPECT_EQ(listing(d.path()), "dir part.cli sink ");
}
