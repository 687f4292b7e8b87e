#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include "job/job.h"
#include "job/job_output.h"
#include "support/mm.h"

namespace {

bool is_extension(const char *extension, const char *wanted) {
    return extension && strcmp(extension, wanted) == 0;
}

int no_memory() {
    fprintf(stderr, "%s: unable to allocate additional memory.\n", JOB_PROGRAM_NAME);
    return 0;
}

int unable_to_write(const char *name, int error) {
    fprintf(stderr, "%s: unable to access (mode:wb) \"%s\"\n", JOB_PROGRAM_NAME, name);
    fprintf(stderr, "%s: (%s)\n", JOB_PROGRAM_NAME, sys_error_text(error));
    return 0;
}

// Both regular and the same file: writing one would destroy the other.
bool same_file(FILE *input, const struct stat &output) {
    struct stat in;
    return input && fstat(fileno(input), &in) == 0 && S_ISREG(in.st_mode) &&
           S_ISREG(output.st_mode) && in.st_dev == output.st_dev && in.st_ino == output.st_ino;
}

} // namespace

void job_free_path(char **path) {
    if (*path) mm_free(*path, strlen(*path) + 1, 0);
    *path = nullptr;
}

int job_set_path(char **path, const char *text) {
    size_t size = strlen(text) + 1;
    char *copy = static_cast<char *>(mm_malloc(size));
    if (!copy) return no_memory();
    memcpy(copy, text, size);
    job_free_path(path);
    *path = copy;
    return 1;
}

const char *file_extension(const char *name) {
    if (!name || !*name || strcmp(name, ".") == 0) return nullptr;
    for (const char *p = name + strlen(name); p-- != name;) {
        if (*p == '/') return nullptr;
        if (*p == '.') return p;
    }
    return nullptr;
}

char *job_name_with_extension(const char *name, const char *ext) {
    size_t length = strlen(name);
    size_t added = file_extension(name) ? 0 : strlen(ext);
    char *result = static_cast<char *>(mm_malloc(length + added + 1));
    if (!result) {
        no_memory();
        return nullptr;
    }
    memcpy(result, name, length);
    memcpy(result + length, ext, added);
    return result;
}

int job_open_input(const char *name, const char *default_ext, FILE **handle, char **path) {
    char *buffer = nullptr;
    if (!job_set_path(&buffer, name)) return 0;
    FILE *file = fopen(buffer, "rb");
    if (!file) {
        job_free_path(&buffer);
        buffer = job_name_with_extension(name, default_ext);
        if (!buffer) return 0;
        file = fopen(buffer, "rb");
    }
    if (!file) {
        int error = errno;
        fprintf(stderr, "%s: unable to access (mode:rb) neither \"%s\" nor \"<ditto>%s\"\n",
                JOB_PROGRAM_NAME, name, default_ext);
        fprintf(stderr, "%s: (%s)\n", JOB_PROGRAM_NAME, sys_error_text(error));
        job_free_path(&buffer);
        return 0;
    }
    *handle = file;
    *path = buffer;
    return 1;
}

int job_open_output(const char *name, const char *default_ext, FILE *input, FILE **handle,
                    char **path) {
    // A directory is never a name for the output, nor a place to put
    // ".cli" into.
    size_t length = strlen(name);
    struct stat st;
    bool named_exists = stat(name, &st) == 0;
    if ((length > 0 && name[length - 1] == '/') || (named_exists && S_ISDIR(st.st_mode))) {
        unable_to_write(name, EISDIR);
        return -1;
    }
    // A device or a pipe is written under the name it has.
    char *target = nullptr;
    if (named_exists && !S_ISREG(st.st_mode)) {
        if (!job_set_path(&target, name)) return 0;
    } else {
        target = job_name_with_extension(name, default_ext);
        if (!target) return 0;
    }
    bool exists = stat(target, &st) == 0;
    int result = 0;
    FILE *file = nullptr;
    if (!exists && errno != ENOENT) {
        unable_to_write(name, errno);
    } else if (exists && S_ISDIR(st.st_mode)) {
        unable_to_write(name, EISDIR);
        result = -1;
    } else if (exists && same_file(input, st)) {
        fprintf(stderr, "%s: the output file is the input file (%s)\n", JOB_PROGRAM_NAME, target);
        result = -1;
    } else {
        if (exists) {
            fprintf(stderr, "%s(info): output file %s already exists\n", JOB_PROGRAM_NAME, target);
        }
        if (output_open(target, exists ? &st : nullptr, &file)) {
            result = 1;
        } else {
            unable_to_write(name, errno);
        }
    }
    if (result != 1) {
        job_free_path(&target);
        return result;
    }
    *handle = file;
    *path = target;
    return 1;
}

int job_resolve_files(JobSettings *settings) {
    uint8_t *flags = settings->flags;
    const bool verbose = settings->verbosity >= 1 && settings->verbosity <= 5;
    flags[3] |= JOB_NO_WINDOW;

    // Standard input without -F is read as CLI.
    if (!(flags[2] & JOB_IN_FORMAT_SET)) {
        if (flags[0] & JOB_IN_FILE) {
            const char *extension = file_extension(settings->in_path);
            if (is_extension(extension, ".cli")) {
                flags[0] |= JOB_IN_CLI;
            } else if (is_extension(extension, ".slc")) {
                flags[0] |= JOB_IN_SLC;
            } else if (is_extension(extension, ".ssl")) {
                flags[0] |= JOB_IN_FDM;
            } else {
                flags[0] |= JOB_IN_CLI;
                if (verbose) {
                    fprintf(stderr, "%s(info): input file format assumed to be CLI\n",
                            JOB_PROGRAM_NAME);
                }
            }
        } else {
            flags[0] |= JOB_IN_CLI;
        }
    }
    const char *in_ext = (flags[0] & JOB_IN_SLC)   ? ".slc"
                         : (flags[0] & JOB_IN_FDM) ? ".ssl"
                                                   : ".cli";

    // Standard output without -O is written as ASCII CLI.
    if (!(flags[2] & JOB_OUT_FORMAT_SET)) {
        if (flags[0] & JOB_OUT_FILE) {
            const char *extension = file_extension(settings->out_path);
            if (is_extension(extension, ".slc")) {
                flags[1] |= JOB_OUT_SLC;
            } else if (is_extension(extension, ".ssl")) {
                flags[1] |= JOB_OUT_FDM;
            } else {
                flags[0] |= JOB_OUT_CLI_BINARY;
                if (verbose) {
                    fprintf(stderr, "%s(info): output file format assumed to be binary CLI\n",
                            JOB_PROGRAM_NAME);
                }
            }
        } else {
            flags[0] |= JOB_OUT_CLI_ASCII;
        }
    }
    const char *out_ext = (flags[1] & JOB_OUT_SLC)   ? ".slc"
                          : (flags[1] & JOB_OUT_FDM) ? ".ssl"
                                                     : ".cli";

    if (flags[0] & JOB_IN_FILE) {
        FILE *file = nullptr;
        char *path = nullptr;
        if (!job_open_input(settings->in_path, in_ext, &file, &path)) return 0;
        job_free_path(&settings->in_path);
        settings->in_path = path;
        settings->in = file;
    } else {
        if (!job_set_path(&settings->in_path, "<stdin>")) return 0;
        settings->in = stdin;
    }

    if (flags[0] & JOB_OUT_FILE) {
        FILE *file = nullptr;
        char *path = nullptr;
        int opened = job_open_output(settings->out_path, out_ext, settings->in, &file, &path);
        if (opened <= 0) return opened;
        job_free_path(&settings->out_path);
        settings->out_path = path;
        settings->out = file;
    } else {
        if (!job_set_path(&settings->out_path, "<stdout>")) return 0;
        output_use_stdout(&settings->out);
    }

    if ((flags[0] & JOB_OUT_CLI_ALIGNED) || (flags[1] & JOB_OUT_CLI_SHORT)) {
        fprintf(stderr, "%s(info): setting -P (output format requires positive numbers)\n",
                JOB_PROGRAM_NAME);
        flags[1] |= JOB_POSITIVE;
    }
    return 1;
}
