/* The program behind recorder.h: notes how it was called and answers as the test said. It stands in the place
   of a tool through a symbolic link and is linked statically, so that it runs whatever the test's view of the
   file system is. It finds its orders by the path it was run by:
       ORDERS/usr!sbin!tool/{00,01,...}   tried in turn: "match TEXT" and what to do
       ORDERS/journal                     one JSON object per call */
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#ifndef ORDERS
#error "ORDERS is the folder of the orders"
#endif

static char *out;
static size_t used, room;

static void add(const char *text, size_t length) {
    if (used + length + 1 > room) {
        room = (used + length + 1) * 2;
        out = realloc(out, room);
        if (out == NULL) _exit(120);
    }
    memcpy(out + used, text, length);
    used += length;
    out[used] = 0;
}

static void add_text(const char *text) { add(text, strlen(text)); }

static void add_string(const char *text) {
    add_text("\"");
    for (; *text; ++text) {
        char piece[8];
        unsigned char c = (unsigned char)*text;
        if (c == '"' || c == '\\' || c < 0x20) {
            snprintf(piece, sizeof piece, "\\u%04x", c);
            add_text(piece);
        } else {
            add(text, 1);
        }
    }
    add_text("\"");
}

static void add_number(long long value) {
    char text[32];
    snprintf(text, sizeof text, "%lld", value);
    add_text(text);
}

/* The path it was run by, in its real folder: "/sbin/x" is "/usr/sbin/x". */
static const char *own_path(const char *run_by) {
    static char path[PATH_MAX + NAME_MAX];
    char folder[PATH_MAX];
    const char *name = strrchr(run_by, '/');
    if (name == NULL) return run_by;
    snprintf(folder, sizeof folder, "%.*s/", (int)(name - run_by), run_by);
    if (realpath(folder, path) == NULL) return run_by;
    strcat(path, name);
    return path;
}

static int signals_held(void) {
    sigset_t blocked;
    struct sigaction action;
    int number;
    sigprocmask(SIG_BLOCK, NULL, &blocked);
    for (number = 1; number < 32; ++number) {
        if (sigismember(&blocked, number) == 1) return 1;
        if (sigaction(number, NULL, &action) == 0 && action.sa_handler == SIG_IGN) return 1;
    }
    return 0;
}

static void note(int argc, char **argv, const char *path) {
    struct timespec now;
    struct dirent *entry;
    DIR *fds;
    int i, first = 1, journal;
    clock_gettime(CLOCK_MONOTONIC, &now);
    add_text("{\"path\":");
    add_string((const char *)getauxval(AT_EXECFN));
    add_text(",\"tool\":");
    add_string(path);
    add_text(",\"argv\":[");
    for (i = 0; i < argc; ++i) {
        if (i) add_text(",");
        add_string(argv[i]);
    }
    add_text("],\"time\":");
    add_number(now.tv_sec * 1000000000LL + now.tv_nsec);
    add_text(",\"pid\":");
    add_number(getpid());
    add_text(",\"held\":");
    add_text(signals_held() ? "true" : "false");
    add_text(",\"fds\":[");
    fds = opendir("/proc/self/fd");
    while (fds != NULL && (entry = readdir(fds)) != NULL) {
        int fd = atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd < 3 || fd == dirfd(fds)) continue;
        if (!first) add_text(",");
        first = 0;
        add_number(fd);
    }
    if (fds != NULL) closedir(fds);
    add_text("]}\n");
    journal = open(ORDERS "/journal", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (journal < 0 || write(journal, out, used) != (ssize_t)used) _exit(121);
    close(journal);
}

static char *slurp(const char *path) {
    struct stat info;
    char *text;
    ssize_t got;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return NULL;
    if (fstat(fd, &info) != 0 || (text = calloc(1, (size_t)info.st_size + 1)) == NULL) _exit(122);
    got = read(fd, text, (size_t)info.st_size);
    close(fd);
    return got == info.st_size ? text : NULL;
}

static int put(int fd, const char *text) {
    size_t left = strlen(text);
    while (left > 0) {
        ssize_t done = write(fd, text, left);
        if (done < 0) return 0;
        text += done;
        left -= (size_t)done;
    }
    return 1;
}

/* Orders are NUL-separated pairs of a word and its value, ended by an empty word. */
static const char *value_of(const char *orders, size_t size, const char *word) {
    size_t at = 0;
    while (at < size && orders[at]) {
        const char *key = orders + at;
        const char *value = key + strlen(key) + 1;
        if (strcmp(key, word) == 0) return value;
        at = (size_t)(value + strlen(value) + 1 - orders);
    }
    return NULL;
}

static void obey(const char *orders, size_t size, char **argv) {
    const char *value;
    if ((value = value_of(orders, size, "delay")) != NULL) {
        long ms = atol(value);
        struct timespec time = {ms / 1000, (ms % 1000) * 1000000L};
        nanosleep(&time, NULL);
    }
    if ((value = value_of(orders, size, "real")) != NULL) {
        execv(value, argv);
        _exit(127);
    }
    if ((value = value_of(orders, size, "error")) != NULL) put(2, value);
    if ((value = value_of(orders, size, "output")) != NULL) put(1, value);
    if (value_of(orders, size, "flood") != NULL)
        while (put(1, value && *value ? value : "y\n")) continue;
    while (value_of(orders, size, "hang") != NULL) pause();
    if ((value = value_of(orders, size, "signal")) != NULL) raise(atoi(value));
    value = value_of(orders, size, "exit");
    _exit(value != NULL ? atoi(value) : 0);
}

int main(int argc, char **argv) {
    char folder[PATH_MAX * 2], file[PATH_MAX * 2 + 64], *c, line[65536] = "";
    const char *path = own_path((const char *)getauxval(AT_EXECFN));
    struct stat info;
    int i;
    note(argc, argv, path);
    for (i = 1; i < argc; ++i) {
        if (i > 1) strncat(line, " ", sizeof line - strlen(line) - 1);
        strncat(line, argv[i], sizeof line - strlen(line) - 1);
    }
    snprintf(folder, sizeof folder, "%s", path + 1);
    for (c = folder; *c; ++c)
        if (*c == '/') *c = '!';
    for (i = 0;; ++i) {
        const char *match;
        char *orders;
        snprintf(file, sizeof file, "%s/%s/%02d", ORDERS, folder, i);
        orders = slurp(file);
        if (orders == NULL) break;
        stat(file, &info);
        match = value_of(orders, (size_t)info.st_size, "match");
        if (match == NULL || strstr(line, match) != NULL) obey(orders, (size_t)info.st_size, argv);
        free(orders);
    }
    snprintf(file, sizeof file, "%s/%s/always", ORDERS, folder);
    if ((c = slurp(file)) != NULL && stat(file, &info) == 0) obey(c, (size_t)info.st_size, argv);
    return 0;
}
