// A fuzz target's input bytes as a ByteInput: from memory, or from a stream
// of unknown size over the same bytes, read in small blocks (every refill
// and pushback across a block end).
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>

#include "support/byte_input.h"

class FuzzInput {
  public:
    FuzzInput(const void *data, std::size_t size, bool stream, std::size_t block) {
        if (!stream || size == 0) {
            in_ = std::make_unique<laytran::ByteInput>(data, size);
            return;
        }
        file_ = fmemopen(const_cast<void *>(data), size, "rb");
        if (file_) in_ = std::make_unique<laytran::ByteInput>(file_, block);
    }
    ~FuzzInput() {
        in_.reset();
        if (file_) std::fclose(file_);
    }
    FuzzInput(const FuzzInput &) = delete;
    FuzzInput &operator=(const FuzzInput &) = delete;

    // Null when the stream could not be opened.
    laytran::ByteInput *get() { return in_.get(); }

  private:
    std::FILE *file_ = nullptr;
    std::unique_ptr<laytran::ByteInput> in_;
};
