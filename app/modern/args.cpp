#include "app/modern/args.h"

namespace laytran::modern {

namespace {

const OptionSpec *find(const std::vector<OptionSpec> &specs, const std::string &name) {
    for (const OptionSpec &s : specs) {
        if (name == s.name) return &s;
    }
    return nullptr;
}

// An option the unknown one may have meant: one that begins with it, or
// that it begins with.
std::string suggestion(const std::vector<OptionSpec> &specs, const std::string &name) {
    for (const OptionSpec &s : specs) {
        const std::string known = s.name;
        if (!name.empty() &&
            (known.compare(0, name.size(), name) == 0 || name.compare(0, known.size(), known) == 0))
            return " (did you mean --" + known + "?)";
    }
    return {};
}

} // namespace

Args parse_args(const std::vector<std::string> &words, const std::vector<OptionSpec> &specs) {
    Args args;
    bool options_end = false;
    for (std::size_t i = 0; i < words.size(); i++) {
        const std::string &w = words[i];
        if (options_end || w == "-" || w.empty() || w[0] != '-') {
            args.operands.push_back(w);
            continue;
        }
        if (w == "--") {
            options_end = true;
            continue;
        }
        if (w == "--help" || w == "-h") {
            args.help = true;
            continue;
        }
        const OptionSpec *spec = nullptr;
        for (const OptionSpec &s : specs) {
            if (s.letter && w.size() == 2 && w[1] == s.letter) spec = &s;
        }
        if (!spec && w.compare(0, 2, "--") != 0)
            throw UsageError("unknown option '" + w + "' (options are long: --name)");
        const std::size_t eq = spec ? std::string::npos : w.find('=');
        const std::string name =
            spec ? spec->name : w.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
        if (!spec) spec = find(specs, name);
        if (!spec) throw UsageError("unknown option '--" + name + "'" + suggestion(specs, name));
        const std::string shown = w.compare(0, 2, "--") == 0 ? "--" + name : w;
        std::string value;
        if (eq != std::string::npos) {
            if (!spec->value) throw UsageError("option '" + shown + "' takes no value");
            value = w.substr(eq + 1);
        } else if (spec->value) {
            if (i + 1 == words.size()) throw UsageError("option '" + shown + "' needs a value");
            value = words[++i];
        }
        args.options[name] = value;
    }
    return args;
}

void expect_operands(const Args &args, const std::vector<const char *> &names) {
    if (args.operands.size() == names.size()) return;
    if (args.operands.size() > names.size())
        throw UsageError("too many operands: '" + args.operands[names.size()] + "'");
    std::string missing = names[args.operands.size()];
    throw UsageError("missing operand " + missing);
}

} // namespace laytran::modern
