#include "app/classic/scanner.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace laytran::classic {

void OptionScanner::message(const char *text, int letter) const {
    std::string line = argv_[0] ? argv_[0] : "";
    line += text;
    line += static_cast<char>(letter);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

int OptionScanner::next() {
    if (*position_ == '\0') {
        if (index_ >= argc_) return -1;
        const char *word = argv_[index_];
        if (!word || word[0] != '-' || word[1] == '\0') return -1;
        if (word[1] == '-') {
            index_++;
            return -1;
        }
        position_ = word + 1;
    }
    const int c = static_cast<unsigned char>(*position_++);
    letter_ = c;
    const char *found = c == ':' ? nullptr : std::strchr(letters_, c);
    if (!found) {
        if (*position_ == '\0') index_++;
        message(": illegal option -- ", c);
        return '?';
    }
    if (found[1] == ':') {
        if (*position_ != '\0') {
            argument_ = position_;
        } else if (++index_ >= argc_) {
            position_ = "";
            message(": option requires an argument -- ", c);
            return '?';
        } else {
            argument_ = argv_[index_];
        }
        position_ = "";
        index_++;
        return c;
    }
    argument_ = nullptr;
    if (*position_ == '\0') index_++;
    return c;
}

} // namespace laytran::classic
