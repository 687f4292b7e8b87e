// The shared buffered byte input and output: block boundaries, pushback,
// offsets and failures, over every kind of source and destination.
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/vfs.h>
#include <unistd.h>

#include "support/byte_input.h"
#include "support/byte_output.h"
#include "support/helper_thread.h"
#include "test_util.h"

using laytran::ByteInput;
using laytran::ByteOutput;
using laytran::OutputFile;

namespace {

std::string bytes(int n) {
    std::string s;
    for (int i = 0; i < n; i++)
        s.push_back(static_cast<char>(i * 7 + 1));
    return s;
}

// Every way of taking bytes out gives the same bytes at the same offsets,
// whatever the block size and source.
void expect_reads_back(ByteInput &in, const std::string &want) {
    std::string got;
    // Pushback of bytes and of the end, then a contiguous view, then a bulk read.
    int c = in.get();
    int d = in.get();
    ASSERT_TRUE(in.unget(d));
    ASSERT_TRUE(in.unget(c));
    EXPECT_EQ(in.offset(), 0u);
    EXPECT_EQ(in.get(), c);
    EXPECT_EQ(in.offset(), 1u);
    EXPECT_EQ(in.get(), d);
    ASSERT_TRUE(in.unget(d));
    got.push_back(static_cast<char>(c));
    EXPECT_EQ(in.offset(), 1u);
    if (const std::uint8_t *p = in.contiguous(5)) {
        got.append(reinterpret_cast<const char *>(p), 5);
        in.skip(5);
    } else {
        for (int i = 0; i < 5; i++)
            got.push_back(static_cast<char>(in.get()));
    }
    EXPECT_EQ(in.offset(), 6u);
    std::string rest(want.size(), '\0');
    rest.resize(in.read(&rest[0], want.size()));
    got += rest;
    EXPECT_EQ(got, want);
    EXPECT_EQ(in.offset(), want.size());
    EXPECT_EQ(in.get(), ByteInput::eof);
    ASSERT_TRUE(in.unget(ByteInput::eof));
    EXPECT_EQ(in.offset(), want.size()); // the end is not a byte
    EXPECT_EQ(in.get(), ByteInput::eof);
    EXPECT_TRUE(in.at_end());
    EXPECT_FALSE(in.failed());
}

} // namespace

TEST(ByteInput, EverySourceAndBlockSizeGivesTheSameBytes) {
    const std::string data = bytes(10000);
    TempDir d;
    write_file(d.file("in"), data);
    {
        ByteInput in(data.data(), data.size());
        expect_reads_back(in, data);
    }
    // Each file read by this thread alone and read ahead by a helper.
    for (std::size_t block : {std::size_t(7), std::size_t(64), std::size_t(1) << 20}) {
        for (std::uint64_t ahead_from : {UINT64_MAX, std::uint64_t(0)}) {
            SCOPED_TRACE(testing::Message() << "block " << block << ", ahead from " << ahead_from);
            int fd = open(d.file("in").c_str(), O_RDONLY);
            ByteInput in(fd, block, ahead_from);
            EXPECT_TRUE(in.size_known());
            EXPECT_EQ(in.size(), data.size());
            EXPECT_EQ(in.reading_ahead(), ahead_from == 0);
            expect_reads_back(in, data);
            close(fd);
            FILE *f = fopen(d.file("in").c_str(), "rb");
            ByteInput s(f, block, ahead_from);
            expect_reads_back(s, data);
            fclose(f);
        }
    }
    // A pipe has no size, and gives its bytes in pieces.
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(write(p[1], data.data(), 4000), 4000);
    close(p[1]);
    ByteInput in(p[0], 64);
    EXPECT_FALSE(in.size_known());
    EXPECT_EQ(in.remaining(), UINT64_MAX);
    expect_reads_back(in, data.substr(0, 4000));
    close(p[0]);
}

TEST(ByteInput, ContiguousCrossesBlockEndsAndMeasuresFromTheCurrentPosition) {
    const std::string data = bytes(100);
    TempDir d;
    write_file(d.file("in"), data);
    for (std::uint64_t ahead_from : {UINT64_MAX, std::uint64_t(0)}) {
        SCOPED_TRACE(testing::Message() << "ahead from " << ahead_from);
        int fd = open(d.file("in").c_str(), O_RDONLY);
        ASSERT_EQ(lseek(fd, 10, SEEK_SET), 10);
        ByteInput in(fd, 16, ahead_from);
        EXPECT_EQ(in.size(), 90u);
        for (int i = 0; i < 14; i++)
            in.get();
        const std::uint8_t *p = in.contiguous(12); // 2 bytes left in the block
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(p), 12), data.substr(24, 12));
        in.skip(12);
        EXPECT_EQ(in.remaining(), 90u - 26u);
        EXPECT_EQ(in.contiguous(17), nullptr); // more than a block
        const int c = in.get(), d2 = in.get();
        in.unget(d2);
        in.unget(c);
        EXPECT_EQ(in.contiguous(1), nullptr); // pushback waits
        // ... until it is settled back into the block, bytes and offset alike.
        const std::uint64_t at = in.offset();
        EXPECT_TRUE(in.settle_pushback());
        EXPECT_EQ(in.offset(), at);
        p = in.contiguous(2);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p[0], c);
        EXPECT_EQ(p[1], d2);
        in.get();
        in.unget('x'); // not the byte read
        EXPECT_FALSE(in.settle_pushback());
        EXPECT_EQ(in.get(), 'x');
        close(fd);
    }
}

TEST(ByteInput, AFailedReadIsKeptWithItsErrno) {
    int fd = open("/tmp", O_RDONLY | O_DIRECTORY);
    ByteInput in(fd);
    EXPECT_EQ(in.get(), ByteInput::eof);
    EXPECT_TRUE(in.failed());
    EXPECT_EQ(in.error_number(), EISDIR);
    close(fd);
    // A file open for writing only fails its reads, on this thread or ahead.
    TempDir d;
    write_file(d.file("in"), bytes(100));
    for (std::uint64_t ahead_from : {UINT64_MAX, std::uint64_t(0)}) {
        fd = open(d.file("in").c_str(), O_WRONLY);
        ByteInput w(fd, 16, ahead_from);
        EXPECT_EQ(w.contiguous(4), nullptr);
        EXPECT_EQ(w.get(), ByteInput::eof);
        EXPECT_TRUE(w.failed());
        EXPECT_FALSE(w.at_end());
        EXPECT_EQ(w.error_number(), EBADF);
        EXPECT_EQ(w.offset(), 0u);
        close(fd);
    }
}

TEST(ByteOutput, EveryDestinationGetsTheSameBytes) {
    const std::string data = bytes(5000);
    auto fill = [&](ByteOutput &out) {
        out.put(static_cast<std::uint8_t>(data[0]));
        out.write(data.data() + 1, 99);
        char *at = out.reserve(10);
        ASSERT_NE(at, nullptr);
        memcpy(at, data.data() + 100, 10);
        out.commit(10);
        out.write(data.data() + 110, data.size() - 110); // longer than a block
        EXPECT_EQ(out.offset(), data.size());
        EXPECT_TRUE(out.finish());
    };
    std::string memory;
    {
        ByteOutput out(&memory, 64);
        fill(out);
    }
    EXPECT_EQ(memory, data);
    TempDir d;
    int fd = open(d.file("fd").c_str(), O_WRONLY | O_CREAT, 0644);
    {
        ByteOutput out(fd, 64);
        fill(out);
    }
    close(fd);
    EXPECT_EQ(read_file(d.file("fd")), data);
    FILE *f = fopen(d.file("stream").c_str(), "wb");
    {
        ByteOutput out(f, 64);
        fill(out);
    }
    fclose(f);
    EXPECT_EQ(read_file(d.file("stream")), data);
}

// Items formatted in batches in place, or one at a time through the
// caller's room when the block is smaller than a batch: the same bytes.
TEST(ByteOutput, BatchesInPlaceOrOneAtATimeGiveTheSameBytes) {
    // Item i: one to three letters and a comma, four bytes at the most.
    auto item = [](std::size_t i) {
        return std::string(1 + i % 3, static_cast<char>('a' + i % 26)) + ",";
    };
    std::string want;
    for (std::size_t i = 0; i < 100; i++)
        want += item(i);
    for (std::size_t block : {std::size_t(8), ByteOutput::default_block}) {
        std::string got;
        {
            ByteOutput out(&got, block);
            char local[4];
            EXPECT_TRUE(out.write_batches(100, 16, 4, local,
                                          [&](std::size_t first, std::size_t end, char *to) {
                                              std::size_t k = 0;
                                              for (std::size_t i = first; i < end; i++) {
                                                  const std::string t = item(i);
                                                  memcpy(to + k, t.data(), t.size());
                                                  k += t.size();
                                              }
                                              return k;
                                          }));
            EXPECT_TRUE(out.finish());
        }
        EXPECT_EQ(got, want) << "block " << block;
    }
}

// An own file goes around the system's cache once its first megabytes are
// out (on a local disk): whole units from aligned blocks, what is left of a
// block carried into the next, the short last block through the cache.
// Whatever the mix of writes, the file holds every byte, in order.
TEST(ByteOutput, AnOwnLargeFileHoldsEveryByteAroundTheCache) {
    std::string data((std::size_t(12) << 20) + 12345, '\0');
    std::uint64_t seed = 1;
    auto next = [&seed] {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<std::size_t>(seed >> 33);
    };
    for (char &c : data)
        c = static_cast<char>(next());
    // Single bytes, numbers formatted in place, short runs and runs longer
    // than a block.
    auto fill = [&](ByteOutput &out) {
        for (std::size_t at = 0; at < data.size();) {
            const std::size_t r = next();
            std::size_t n =
                std::min(data.size() - at, std::size_t(1) + r % (r % 4 == 3 ? 300000 : 5000));
            if (r % 4 == 0) {
                n = 1;
                out.put(static_cast<std::uint8_t>(data[at]));
            } else if (r % 4 == 1) {
                // Room asked for beyond what is kept: often more than the block has left.
                const std::size_t want = 1 + r % 8000;
                n = std::min(n, want);
                char *room = out.reserve(want);
                EXPECT_NE(room, nullptr);
                if (!room) return false;
                memcpy(room, data.data() + at, n);
                out.commit(n);
            } else {
                out.write(data.data() + at, n);
            }
            at += n;
        }
        EXPECT_EQ(out.offset(), data.size());
        EXPECT_TRUE(out.finish());
        return out.bypassed_cache();
    };
    TempDir d;
    struct statfs fs;
    ASSERT_EQ(statfs(d.path().c_str(), &fs), 0);
    const std::string path = d.file("own");
    for (bool stream : {false, true}) {
        SCOPED_TRACE(stream ? "stream" : "descriptor");
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        bool bypassed;
        if (stream) {
            FILE *f = fdopen(fd, "wb");
            setvbuf(f, nullptr, _IONBF, 0);
            ByteOutput out(f, OutputFile::own, 64 << 10);
            bypassed = fill(out);
            fclose(f);
        } else {
            ByteOutput out(fd, OutputFile::own, 64 << 10);
            bypassed = fill(out);
            close(fd);
        }
        EXPECT_TRUE(read_file(path) == data);
        if (fs.f_type == 0xEF53) {
            EXPECT_TRUE(bypassed) << "ext4 takes writes around the cache";
        }
    }
}

TEST(HelperThread, JobsRunInOrderAndWhatTheyWroteIsSeenAfterWait) {
    std::vector<int> seen;
    {
        laytran::HelperThread helper;
        // Handed over one at a time, or queued up to three deep: a job
        // queued may not start before the one ahead of it ends, nor be
        // queued while three are pending.
        std::atomic<int> handed{0}, ended{0};
        bool over_three = false;
        for (int i = 0; i < 2000; i++) {
            auto job = [&, i] {
                seen.push_back(i);
                over_three |= handed.load() - ended.load() > 3;
                ended++;
            };
            if (i < 1000) {
                helper.run(job);
            } else {
                helper.post(job, 3);
            }
            handed++;
            if (i % 3 == 0 && i < 1000) helper.wait();
        }
        helper.wait();
        EXPECT_EQ(seen.size(), 2000u);
        for (int i = 0; i < 2000; i++)
            EXPECT_EQ(seen[i], i);
        EXPECT_FALSE(over_three);
        for (int i = 0; i < 5; i++) // not waited for: they run before the end
            helper.post([&seen] { seen.pop_back(); }, 2);
    }
    EXPECT_EQ(seen.size(), 1995u);
}

TEST(ByteOutput, AFullDeviceFailsTheLastFlushAndDropsLaterWrites) {
    int fd = open("/dev/full", O_WRONLY);
    ASSERT_GE(fd, 0);
    ByteOutput out(fd);
    EXPECT_TRUE(out.write("small")); // only buffered so far
    EXPECT_FALSE(out.finish());
    EXPECT_EQ(out.error_number(), ENOSPC);
    EXPECT_FALSE(out.put('x'));
    EXPECT_EQ(out.reserve(4), nullptr);
    EXPECT_FALSE(out.finish());
    close(fd);
    // Full blocks go out on the helper thread: its failure is known from the
    // next block or settle() on, and what follows is dropped.
    fd = open("/dev/full", O_WRONLY);
    ByteOutput async(fd, 16);
    for (int i = 0; i < 40; i++)
        async.write("0123456789");
    EXPECT_FALSE(async.settle());
    EXPECT_TRUE(async.failed());
    EXPECT_EQ(async.error_number(), ENOSPC);
    EXPECT_FALSE(async.write("x"));
    EXPECT_FALSE(async.finish());
    close(fd);
    // A closed descriptor is a failure too, not a silent loss.
    ByteOutput closed(-1);
    closed.write("x");
    EXPECT_FALSE(closed.finish());
    EXPECT_EQ(closed.error_number(), EBADF);
}
