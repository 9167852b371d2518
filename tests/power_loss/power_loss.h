// Power losses, made from what a program has done to the files of a directory.
//
// Every create, write, truncation, rename, removal and sync in it is recorded as the C library was
// asked for it by this program or a library of it, SQLite for one: the functions below stand in the
// C library's place. From the record each state is made that a power loss could have left. What had
// been synced is there. What had not may be there or not, sector by sector. Names are made in their
// order, as by any file system with a journal, and only the directory's own sync keeps them;
// nothing else has an order. What SQLite maps into memory (-shm) is garbage.
//
// Nothing is really synced here. One thread at a time changes files.
#ifndef POWER_LOSS_H
#define POWER_LOSS_H

#include "scratch_dir.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace power_loss {

namespace fs = std::filesystem;
using files = std::map<std::string, std::string>; // name in the directory: content

struct state {
    files left;
    // Things that were not to be lost: they may be on the disk when they have begun, and have to be
    // when they are acknowledged.
    size_t begun, acknowledged;
    size_t number; // of the states so far
};

enum class kind : uint8_t { begin, acknowledge, sync, write, truncate, create, rename, remove };
struct operation {
    kind what;
    ino_t file = 0;        // of names: the directory
    size_t at = 0;         // of a write; new size of a truncation
    std::string data = {}; // of a write; otherwise the name
    ino_t made = 0;        // by a create
    std::string to = {};   // of a rename
};

inline fs::path directory;                 // that is recorded; empty: none
inline ino_t own_inode;                    // its own
inline std::map<ino_t, std::string> first; // what was in its files, and by a key each later one
inline std::map<std::string, ino_t> first_names;
inline std::vector<operation> operations;

inline ino_t inode_of(int fd) {
    struct stat at {};
    return fstat(fd, &at) == 0 ? at.st_ino : 0;
}

inline void note(kind what, int fd, off_t at, const void *data = nullptr, ssize_t size = 0) {
    if (const ino_t file = inode_of(fd); !directory.empty() && first.count(file) != 0)
        operations.push_back(
            {what, file, static_cast<size_t>(at),
             std::string(static_cast<const char *>(data), static_cast<size_t>(size))});
}

inline void note_name(kind what, const fs::path &path, ino_t made, const fs::path &to = {}) {
    operations.push_back({what, own_inode, 0, path.filename(), made, to.filename()});
}

inline bool is_recorded(const fs::path &path) {
    std::error_code other;
    return !directory.empty() && fs::equivalent(path.parent_path(), directory, other);
}

// Under names of their own, which the headers do not turn into others where files are large.
#define REAL(name) reinterpret_cast<decltype(&our_##name)>(dlsym(RTLD_NEXT, #name))
#define IN_PLACE_OF(name, result, parameters, done, ...)                                           \
    extern "C" __attribute__((visibility("default"))) result our_##name parameters __asm__(#name); \
    result our_##name parameters {                                                                 \
        const auto got = done;                                                                     \
        if (got >= 0)                                                                              \
            __VA_ARGS__;                                                                           \
        return got;                                                                                \
    }

inline void note_opened(const char *path, int fd);
IN_PLACE_OF(open64, int, (const char *path, int flags, mode_t mode),
            REAL(open64)(path, flags, mode), note_opened(path, got))
IN_PLACE_OF(pwrite64, ssize_t, (int fd, const void *data, size_t size, off_t at),
            REAL(pwrite64)(fd, data, size, at), note(kind::write, fd, at, data, got))
IN_PLACE_OF(write, ssize_t, (int fd, const void *data, size_t size), REAL(write)(fd, data, size),
            note(kind::write, fd, lseek(fd, 0, SEEK_CUR) - got, data, got))
IN_PLACE_OF(ftruncate64, int, (int fd, off_t size), REAL(ftruncate64)(fd, size),
            note(kind::truncate, fd, size))
IN_PLACE_OF(fdatasync, int, (int fd), 0, note(kind::sync, fd, 0))
IN_PLACE_OF(fsync, int, (int fd), 0, note(kind::sync, fd, 0))
IN_PLACE_OF(unlink, int, (const char *path), REAL(unlink)(path),
            if (is_recorded(path)) note_name(kind::remove, path, 0))
IN_PLACE_OF(rename, int, (const char *from, const char *to), REAL(rename)(from, to),
            if (is_recorded(from)) note_name(kind::rename, from, 0, to))

#if __SIZEOF_LONG__ == 8 // else these have other parameters, and nobody to call them
__asm__(".globl open, pwrite, ftruncate\n .set open, open64\n"
        ".set pwrite, pwrite64\n .set ftruncate, ftruncate64");
#endif

// What is there and not known has just been made. The second descriptor keeps the inode from being
// used again.
inline void note_opened(const char *path, int fd) {
    const ino_t file = inode_of(fd);
    if (is_recorded(path) && first.try_emplace(file).second) {
        REAL(open64)(path, O_PATH | O_CLOEXEC, 0);
        note_name(kind::create, path, file);
    }
}

constexpr size_t SECTOR = 512;

enum fate : uint8_t { lost, hole, kept }; // a hole: the file's size alone tells of it
using judge = std::function<fate(const operation &op, size_t sector)>;

// What the first `count` operations have left, given what became of what they had not synced.
inline files left_by(size_t count, const judge &unsynced) {
    std::map<ino_t, size_t> synced;
    for (size_t i = 0; i < count; ++i)
        if (operations[i].what == kind::sync)
            synced[operations[i].file] = i;
    auto contents = first;
    auto names = first_names;
    for (size_t i = 0; i < count; ++i) {
        const operation &op = operations[i];
        const auto is_there = [&](size_t sector) {
            return i < synced[op.file] ? kept : unsynced(op, sector);
        };
        std::string &content = contents[op.file];
        for (size_t done = 0, size = 0; op.what == kind::write && done < op.data.size();
             done += size) {
            const size_t at = op.at + done;
            size = std::min(op.data.size() - done, SECTOR - at % SECTOR);
            const fate found = is_there(at / SECTOR);
            if (found != lost)
                content.resize(std::max(content.size(), at + size));
            if (found == kept)
                content.replace(at, size, op.data, done, size);
        }
        if (op.what < kind::truncate || is_there(std::string::npos) != kept)
            continue;
        if (op.what == kind::truncate)
            content.resize(op.at);
        else if (op.what == kind::create)
            names[op.data] = op.made;
        else if (op.what == kind::rename)
            names[op.to] = names[op.data];
        if (op.what == kind::rename || op.what == kind::remove)
            names.erase(op.data);
    }
    files left;
    for (const auto &[name, file] : names)
        left[name] =
            name.ends_with("-shm") ? std::string(contents[file].size(), 'x') : contents[file];
    return left;
}

// Of what is written into a sector, of truncations and of names, nothing without what was before
// it.
inline judge by_chance(std::mt19937 &chance) {
    const unsigned loss = 1U << chance() % 3; // of 8
    const fate worst = chance() % 2 == 0 ? lost : hole;
    return [&chance, loss, worst, gone = std::set<std::pair<ino_t, size_t>>()](
               const operation &op, size_t sector) mutable {
        if (chance() % 8 < loss)
            gone.emplace(op.file, sector);
        return gone.count({op.file, sector}) != 0 ? worst : kept;
    };
}

// Records what `action` does in a directory; then makes the states after each of its operations,
// and has each different one checked, until a check fails. whole: all was on the disk. dropped:
// what had been synced. torn: the last write ended, or began, between two of its sectors.
// reordered: by chance, twice after each operation, 20 times in the long form of the test; always
// the same ones. Prints one line with the numbers.
inline void test(const std::string &name, const fs::path &where,
                 const std::function<void()> &action,
                 const std::function<void(const state &)> &check) {
    struct stat at {};
    stat(where.c_str(), &at);
    first = {{own_inode = at.st_ino, ""}};
    first_names.clear();
    operations.clear();
    for (const auto &entry : fs::directory_iterator(where)) {
        stat(entry.path().c_str(), &at);
        first[first_names[entry.path().filename()] = at.st_ino] = scratch_dir::read(entry.path());
    }
    directory = where;
    action();
    directory.clear();

    std::mt19937 chance(1);
    std::set<size_t> seen;
    state now = {};
    const auto one = [&](const char *what, size_t count, const judge &unsynced) {
        if (testing::Test::HasFailure())
            return;
        now.left = left_by(count, unsynced);
        size_t print = std::hash<size_t>{}(now.begun + now.acknowledged);
        for (const auto &[file, content] : now.left)
            print = std::hash<std::string>{}(std::to_string(print) + file + content);
        if (!seen.insert(print).second)
            return;
        now.number = seen.size();
        fs::remove_all(where);
        fs::create_directories(where);
        for (const auto &[file, content] : now.left)
            scratch_dir::write(where / file, content);
        check(now);
        if (testing::Test::HasFailure())
            ADD_FAILURE() << what << " after " << count << " operations of " << operations.size()
                          << ", " << now.begun << " begun, " << now.acknowledged << " acknowledged";
    };
    for (size_t count = 0; count <= operations.size(); ++count) {
        const operation last = count == 0 ? operation{kind::sync} : operations[count - 1];
        now.begun += last.what == kind::begin;
        now.acknowledged += last.what == kind::acknowledge;
        one(
            "whole", count, [](const operation &, size_t) { return kept; });
        one("dropped", count, [](const operation &, size_t) { return lost; });
        for (size_t cut = last.at / SECTOR + 1; cut * SECTOR < last.at + last.data.size(); ++cut)
            for (const bool begins : {false, true})
                one("torn", count, [&](const operation &op, size_t sector) {
                    const bool torn = &op == &operations[count - 1];
                    return torn && begins == (sector < cut) ? lost : kept;
                });
        for (int i = getenv("LS_TEST_LONG") != nullptr ? 20 : 2; i > 0; --i)
            one("reordered", count, by_chance(chance));
    }
    std::cout << "power loss, " << name << ": " << operations.size() << " operations, "
              << seen.size() << " different states, "
              << (testing::Test::HasFailure() ? "not all" : "all") << " opened and written on\n";
}

// In an action: does one thing that is not to be lost; it returns whether it is done.
template <typename Thing>
void acknowledged(const Thing &thing) {
    operations.push_back({kind::begin});
    ASSERT_TRUE(thing());
    operations.push_back({kind::acknowledge});
}

} // namespace power_loss

#endif
