// The classic single-letter option scanner.
//
// Options come first, each introduced by '-'; letters may be clustered; a
// letter followed by ':' in the letter string takes an argument (the rest of
// its word, or else the next word, whatever it holds); scanning stops at the
// first word that is not an option, at a lone "-" (not consumed) and after
// "--" (consumed). The scanner prints its own two messages to standard
// error, each beginning with argv[0] as the program was started.
#pragma once

namespace laytran::classic {

class OptionScanner {
  public:
    OptionScanner(int argc, char *const *argv, const char *letters)
        : argc_(argc), argv_(argv), letters_(letters) {}

    // The letter found; '?' after an error (its message written), and the
    // next call goes on with what follows; -1 at the end of the options.
    int next();
    // The argument of the letter just returned; null for a letter without.
    const char *argument() const { return argument_; }
    // The index of the next word to scan: after the end, the first operand.
    int index() const { return index_; }
    // The letter just scanned, also after an error.
    int letter() const { return letter_; }

  private:
    void message(const char *text, int letter) const;

    int argc_;
    char *const *argv_;
    const char *letters_;
    int index_ = 1;
    const char *argument_ = nullptr;
    int letter_ = 0;
    const char *position_ = ""; // the next letter in the current word
};

} // namespace laytran::classic
