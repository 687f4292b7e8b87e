#include "app/command_line.h"

#include <cstring>

#include "support/mm.h"

namespace {

struct WordList {
    char **entries;
    int count;    // entries in use, without the null entry
    int capacity; // entries allocated, with room for the null entry
};

struct WordBuffer {
    char *text;
    size_t length;
    size_t size;
};

int list_add_copy(WordList *list, const char *text, size_t length) {
    if (list->count + 2 > list->capacity) {
        int capacity = list->capacity ? list->capacity * 2 : 8;
        auto *entries = static_cast<char **>(
            mm_realloc(list->entries, list->capacity * sizeof(char *), capacity * sizeof(char *)));
        if (!entries) return 0;
        list->entries = entries;
        list->capacity = capacity;
    }
    char *copy = static_cast<char *>(mm_malloc(length + 1));
    if (!copy) return 0;
    memcpy(copy, text, length);
    list->entries[list->count++] = copy;
    return 1;
}

int buffer_append(WordBuffer *buffer, char c) {
    if (buffer->length + 1 >= buffer->size) {
        size_t size = buffer->size ? buffer->size * 2 : 128;
        char *text = static_cast<char *>(mm_realloc(buffer->text, buffer->size, size));
        if (!text) return 0;
        buffer->text = text;
        buffer->size = size;
    }
    buffer->text[buffer->length++] = c;
    return 1;
}

void free_list(WordList *list) {
    for (int i = 0; i < list->count; i++) {
        mm_free(list->entries[i], strlen(list->entries[i]) + 1, 0);
    }
    mm_free(list->entries, list->capacity * sizeof(char *), 0);
}

} // namespace

int split_command_line(const char *text, int *argc, char ***argv) {
    WordList list = {nullptr, 0, 0};
    WordBuffer word = {nullptr, 0, 0};
    bool open = false, quoted = false, ok = list_add_copy(&list, "laytran", 7);
    for (const char *p = text ? text : ""; ok; p++) {
        char c = *p;
        bool closes = c == '\0' || (c == ' ' && !quoted) || (c == '"' && quoted);
        if (closes) {
            if (open) ok = list_add_copy(&list, word.text, word.length);
            open = false;
            word.length = 0;
            if (c == '\0') break;
            if (c == '"') quoted = false;
        } else if (c == '"') {
            quoted = true;
        } else {
            open = true;
            ok = buffer_append(&word, c);
        }
    }
    mm_free(word.text, word.size, 0);
    if (!ok) {
        free_list(&list);
        return 0;
    }
    list.entries[list.count] = nullptr;
    *argc = list.count;
    *argv = list.entries;
    return 1;
}

void free_command_line(int argc, char **argv) {
    if (!argv) return;
    for (int i = 0; i < argc; i++)
        mm_free(argv[i], strlen(argv[i]) + 1, 0);
    mm_free(argv, (argc + 1) * sizeof(char *), 0);
}
