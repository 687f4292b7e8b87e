#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include "job/job.h"
#include "support/mm.h"

namespace {

const size_t NAME_BUFFER_SIZE = JOB_PATH_MAX + 1;

bool is_extension(const char *extension, const char *wanted) {
    return extension && strcmp(extension, wanted) == 0;
}

bool file_present(const char *name) {
    struct stat st;
    return stat(name, &st) == 0;
}

} // namespace

void job_free_path(char **path) {
    if (*path) mm_free(*path, strlen(*path) + 1, 0);
    *path = nullptr;
}

int job_set_path(char **path, const char *text) {
    size_t size = strlen(text) + 1;
    char *copy = static_cast<char *>(mm_malloc(size));
    if (!copy) {
        fprintf(stderr, "%s: unable to allocate additional memory.\n", JOB_PROGRAM_NAME);
        return 0;
    }
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

int add_default_extension(char *buffer, const char *ext, const char *which) {
    if (file_extension(buffer)) return 1;
    size_t length = strlen(buffer);
    if (length + strlen(ext) > JOB_PATH_MAX) {
        fprintf(stderr, "%s: path to \"%s\" is too long.\n", JOB_PROGRAM_NAME, which);
        return 0;
    }
    strcpy(buffer + length, ext);
    return 1;
}

int job_open_file(JobSettings *, const char *name, const char *mode, const char *default_ext,
                  FILE **handle, char **path) {
    char *buffer = static_cast<char *>(mm_malloc(NAME_BUFFER_SIZE));
    if (!buffer) {
        fprintf(stderr, "%s: unable to allocate additional memory.\n", JOB_PROGRAM_NAME);
        return 0;
    }
    strncpy(buffer, name, JOB_PATH_MAX);
    const bool reading = mode[0] == 'r';
    FILE *file = nullptr;
    if (!reading) {
        if (!add_default_extension(buffer, default_ext, "output")) {
            mm_free(buffer, NAME_BUFFER_SIZE, 0);
            return 0;
        }
        if (file_present(buffer)) {
            fprintf(stderr, "%s(info): output file %s already exists\n", JOB_PROGRAM_NAME, buffer);
        }
    }
    file = fopen(buffer, mode);
    if (!file && reading) {
        if (!add_default_extension(buffer, default_ext, "input")) {
            mm_free(buffer, NAME_BUFFER_SIZE, 0);
            return 0;
        }
        file = fopen(buffer, mode);
    }
    if (!file) {
        int error = errno;
        if (mode[0] != 'w') {
            fprintf(stderr, "%s: unable to access (mode:%s) neither \"%s\" nor \"<ditto>%s\"\n",
                    JOB_PROGRAM_NAME, mode, name, default_ext);
        } else {
            fprintf(stderr, "%s: unable to access (mode:%s) \"%s\"\n", JOB_PROGRAM_NAME, mode,
                    name);
        }
        fprintf(stderr, "%s: (%s)\n", JOB_PROGRAM_NAME, sys_error_text(error));
        mm_free(buffer, NAME_BUFFER_SIZE, 0);
        return 0;
    }
    *handle = file;
    *path = buffer;
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
        if (!job_open_file(settings, settings->in_path, "rb", in_ext, &file, &path)) return 0;
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
        if (!job_open_file(settings, settings->out_path, "wb", out_ext, &file, &path)) return 0;
        job_free_path(&settings->out_path);
        settings->out_path = path;
        settings->out = file;
    } else {
        if (!job_set_path(&settings->out_path, "<stdout>")) return 0;
        settings->out = stdout;
    }

    if ((flags[0] & JOB_OUT_CLI_ALIGNED) || (flags[1] & JOB_OUT_CLI_SHORT)) {
        fprintf(stderr, "%s(info): setting -P (output format requires positive numbers)\n",
                JOB_PROGRAM_NAME);
        flags[1] |= JOB_POSITIVE;
    }
    return 1;
}
