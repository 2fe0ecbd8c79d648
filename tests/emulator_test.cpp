// The driver emulator on a mounted volume.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "emulator_mount.h"
#include "f2fs_ioctl.h"
#include "process.h"
#include "requests.h"
#include "unique_fd.h"

namespace fs = std::filesystem;

namespace {

using emulator::UniqueFd;

UniqueFd openAt(const std::string& path, int flags, mode_t mode = 0644) {
    return UniqueFd(open(path.c_str(), flags | O_CLOEXEC, mode));
}

void write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::string read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// 0, or the errno of a call that failed.
int errorOf(long result) {
    return result < 0 ? errno : 0;
}

// ---------------------------------------------------------------- the file system

using Results = std::vector<long>;

// A result to compare: what the call returned, or its errno below zero.
long tell(long result) {
    return result < 0 ? -errno : result;
}

Results tellTimes(const std::string& path) {
    struct stat attributes = {};
    stat(path.c_str(), &attributes);
    return {attributes.st_atim.tv_sec, attributes.st_atim.tv_nsec, attributes.st_mtim.tv_sec,
            attributes.st_mtim.tv_nsec};
}

int linkOpen(int fd, const std::string& name) {
    return linkat(AT_FDCWD, ("/proc/self/fd/" + std::to_string(fd)).c_str(), AT_FDCWD, name.c_str(),
                  AT_SYMLINK_FOLLOW);
}

struct Behaviour {
    const char* name;
    std::function<Results(const std::string& dir)> run;
};

const Behaviour kBehaviours[] = {
    {"exclusive create",
     [](const std::string& dir) -> Results {
         const int flags = O_CREAT | O_EXCL | O_RDWR;
         const UniqueFd once = openAt(dir + "/file", flags, 04751);
         return {tell(once.valid() ? 0 : -1), tell(openAt(dir + "/file", flags).get()),
                 tell(openAt(dir + "/file/below", O_CREAT).get())};
     }},
    {"names of any bytes",
     [](const std::string& dir) -> Results {
         std::string every;
         for (int byte = 1; byte < 256; ++byte) {
             every += byte == '/' ? ' ' : static_cast<char>(byte);
         }
         return {tell(mkdir((dir + "/" + every).c_str(), 0750)),
                 tell(symlink("\n\xff", (dir + "/" + every + "/\xc3(").c_str())),
                 tell(mkdir((dir + "/" + every + "x").c_str(), 0750))};
     }},
    {"every kind of node",
     [](const std::string& dir) -> Results {
         sockaddr_un address = {};
         address.sun_family = AF_UNIX;
         snprintf(address.sun_path, sizeof(address.sun_path), "%s/socket", dir.c_str());
         const UniqueFd socket_fd(socket(AF_UNIX, SOCK_STREAM, 0));
         return {
             tell(mkfifo((dir + "/fifo").c_str(), 0610)),
             tell(mknod((dir + "/plain").c_str(), S_IFREG | 0640, 0)),
             tell(bind(socket_fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address))),
             tell(symlink(std::string(4000, 'y').c_str(), (dir + "/link").c_str())),
             tell(symlink("", (dir + "/empty").c_str()))};
     }},
    {"rename replaces, refuses and exchanges",
     [](const std::string& dir) -> Results {
         const std::string a = dir + "/a";
         const std::string b = dir + "/b";
         write(a, "a");
         write(b, "bb");
         mkdir((dir + "/d").c_str(), 0755);
         const UniqueFd first = openAt(a, O_RDWR);
         const UniqueFd second = openAt(b, O_RDWR);
         Results results = {
             tell(renameat2(-1, a.c_str(), -1, b.c_str(), RENAME_NOREPLACE)),
             tell(renameat2(-1, a.c_str(), -1, b.c_str(), RENAME_EXCHANGE)),
             tell(rename(a.c_str(), (dir + "/d").c_str())),
             tell(renameat2(-1, a.c_str(), -1, (dir + "/d").c_str(), RENAME_EXCHANGE))};
         results.push_back(tell(fchmod(first.get(), 0601)));
         results.push_back(tell(fchmod(second.get(), 0602)));
         const UniqueFd replaced = openAt(b, O_RDWR);
         results.push_back(tell(rename((dir + "/d").c_str(), b.c_str())));
         results.push_back(tell(pwrite(replaced.get(), "unseen", 6, 0)));
         struct stat attributes = {};
         results.push_back(tell(fstat(replaced.get(), &attributes)));
         results.push_back(attributes.st_size * 10 + static_cast<long>(attributes.st_nlink));
         return results;
     }},
    {"a removed file lives on while it is open, and by its other names",
     [](const std::string& dir) -> Results {
         const std::string one = dir + "/one";
         const std::string two = dir + "/two";
         const std::string below = dir + "/below/one";
         mkdir((dir + "/below").c_str(), 0755);
         write(one, "content");
         Results results = {tell(link(one.c_str(), two.c_str())),
                            tell(link(one.c_str(), below.c_str())),
                            tell(rename(one.c_str(), two.c_str()))};
         const UniqueFd fd = openAt(one, O_RDWR);
         for (const std::string& name : {one, below, two}) {
             results.push_back(tell(unlink(name.c_str())));
             results.push_back(tell(fchmod(fd.get(), 0600 + static_cast<mode_t>(results.size()))));
         }
         results.push_back(tell(ftruncate(fd.get(), 3)));
         results.push_back(tell(linkOpen(fd.get(), dir + "/again")));
         return results;
     }},
    {"an unnamed file gets a name unless it is exclusive",
     [](const std::string& dir) -> Results {
         const mode_t mask = umask(027);
         const UniqueFd fd = openAt(dir, O_TMPFILE | O_RDWR, 0777);
         umask(mask);
         const UniqueFd exclusive = openAt(dir, O_TMPFILE | O_RDWR | O_EXCL);
         return {tell(::write(fd.get(), "unnamed", 7)), tell(linkOpen(fd.get(), dir + "/named")),
                 tell(linkOpen(fd.get(), dir + "/named")),
                 tell(linkOpen(exclusive.get(), dir + "/never")),
                 tell(openAt(dir, O_TMPFILE | O_RDONLY).get())};
     }},
    {"appending goes to the end whatever the offset",
     [](const std::string& dir) -> Results {
         const UniqueFd fd = openAt(dir + "/log", O_CREAT | O_RDWR | O_APPEND);
         Results results = {tell(::write(fd.get(), "one", 3)), tell(pwrite(fd.get(), "two", 3, 0))};
         fcntl(fd.get(), F_SETFL, 0);
         results.push_back(tell(pwrite(fd.get(), "O", 1, 0)));
         fcntl(fd.get(), F_SETFL, O_APPEND);
         results.push_back(tell(pwrite(fd.get(), "end", 3, 0)));
         return results;
     }},
    {"sizes, holes and allocation beyond 4 GiB",
     [](const std::string& dir) -> Results {
         const UniqueFd fd = openAt(dir + "/sparse", O_CREAT | O_RDWR);
         const off_t far = off_t{5} << 30;
         Results results = {tell(pwrite(fd.get(), "x", 1, far)),
                            tell(fallocate(fd.get(), 0, far + 100, 50)),
                            tell(fallocate(fd.get(), FALLOC_FL_KEEP_SIZE, 0, 8192)),
                            tell(fallocate(fd.get(), FALLOC_FL_PUNCH_HOLE, 0, 1))};
         for (const off_t offset :
              {lseek(fd.get(), 1 << 20, SEEK_DATA), lseek(fd.get(), far, SEEK_HOLE),
               lseek(fd.get(), far + 1000, SEEK_DATA)}) {
             results.push_back(static_cast<long>(offset >> 12));
         }
         results.push_back(tell(ftruncate(fd.get(), far + 10)));
         struct stat attributes = {};
         fstat(fd.get(), &attributes);
         results.push_back(static_cast<long>(attributes.st_size >> 10));
         results.push_back(attributes.st_blocks < 100);
         results.push_back(tell(ftruncate(fd.get(), 100)));
         return results;
     }},
    {"owner, mode and times",
     [](const std::string& dir) -> Results {
         const std::string file = dir + "/file";
         write(file, "x");
         symlink("file", (dir + "/link").c_str());
         const timespec both[] = {{12345, 678}, {-5, 999999999}};
         const timespec one[] = {{0, UTIME_OMIT}, {99, 1}};
         Results results = {tell(utimensat(-1, file.c_str(), both, 0)),
                            tell(utimensat(-1, file.c_str(), one, 0)),
                            tell(utimensat(-1, (dir + "/link").c_str(), both, AT_SYMLINK_NOFOLLOW)),
                            tell(chmod(file.c_str(), 06755)),
                            tell(chown(file.c_str(), 12, 34)),
                            tell(lchown((dir + "/link").c_str(), 56, 78)),
                            tell(chmod(file.c_str(), 04511))};
         const Results times = tellTimes(file);
         results.insert(results.end(), times.begin(), times.end());
         return results;
     }},
    {"new files belong to who makes them; a set-group-ID folder passes its group on",
     [](const std::string& dir) -> Results {
         mkdir((dir + "/shared").c_str(), 0777);
         chown((dir + "/shared").c_str(), 0, 4321);
         chmod((dir + "/shared").c_str(), 02777);
         chmod(dir.c_str(), 0777);
         setegid(2000);
         seteuid(1000);
         const std::vector<std::string> folders = {dir, dir + "/shared"};
         Results results;
         for (const std::string& folder : folders) {
             results.push_back(tell(mkdir((folder + "/folder").c_str(), 0755)));
             results.push_back(tell(symlink("x", (folder + "/link").c_str())));
             results.push_back(tell(mkfifo((folder + "/fifo").c_str(), 0644)));
             results.push_back(openAt(folder + "/file", O_CREAT, 06775).valid());
             const UniqueFd fd = openAt(folder, O_TMPFILE | O_RDWR, 06775);
             results.push_back(tell(linkOpen(fd.get(), folder + "/unnamed")));
         }
         results.push_back(tell(chown((dir + "/file").c_str(), 0, 0)));
         seteuid(0);
         setegid(0);
         return results;
     }},
    {"a write or truncation by another user takes the set-ID bits away",
     [](const std::string& dir) -> Results {
         Results results;
         for (const int way : {0, 1, 2, 3}) {
             const std::string file = dir + "/" + std::to_string(way);
             write(file, "program");
             chmod(file.c_str(), 06777);
             seteuid(1000);
             const UniqueFd fd = openAt(file, O_RDWR | (way == 3 ? O_TRUNC : 0));
             const int done = way == 0   ? static_cast<int>(::write(fd.get(), "x", 1))
                              : way == 1 ? ftruncate(fd.get(), 1)
                              : way == 2 ? fallocate(fd.get(), 0, 0, 100)
                                         : fd.valid();
             results.push_back(tell(done));
             seteuid(0);
         }
         return results;
     }},
    {"extended attributes",
     [](const std::string& dir) -> Results {
         const std::string file = dir + "/file";
         const char* const path = file.c_str();
         const std::string large(1000, 'v');
         char value[2000];
         write(file, "x");
         return {tell(setxattr(path, "user.a", "1", 1, XATTR_REPLACE)),
                 tell(setxattr(path, "user.a", "1", 1, XATTR_CREATE)),
                 tell(setxattr(path, "user.a", "2", 1, XATTR_CREATE)),
                 tell(setxattr(path, "user.b", large.data(), large.size(), 0)),
                 tell(setxattr(path, "trusted.c", "", 0, 0)),
                 tell(getxattr(path, "user.b", nullptr, 0)),
                 tell(getxattr(path, "user.b", value, 10)),
                 tell(getxattr(path, "user.b", value, sizeof(value))),
                 tell(getxattr(path, "user.none", value, sizeof(value))),
                 tell(listxattr(path, value, sizeof(value))),
                 tell(listxattr(path, value, 3)),
                 tell(removexattr(path, "user.a")),
                 tell(removexattr(path, "user.a")),
                 tell(setxattr(path, "wrong", "", 0, 0))};
     }},
    {"access control lists are inherited in place of the umask, and obeyed",
     [](const std::string& dir) -> Results {
         const struct {
             uint32_t version;
             struct {
                 uint16_t tag, access;
                 uint32_t id;
             } entries[5];
         } list = {2, {{1, 7, ~0U}, {2, 6, 1000}, {4, 0, ~0U}, {16, 7, ~0U}, {32, 0, ~0U}}};
         chmod(dir.c_str(), 0755);
         Results results = {
             tell(setxattr(dir.c_str(), "system.posix_acl_default", &list, sizeof(list), 0))};
         const mode_t mask = umask(077);
         const UniqueFd named = openAt(dir + "/file", O_CREAT | O_RDWR, 0666);
         const UniqueFd unnamed = openAt(dir, O_TMPFILE | O_RDWR, 0666);
         umask(mask);
         results.push_back(tell(linkOpen(unnamed.get(), dir + "/unnamed")));
         for (const uid_t user : {1000U, 1001U}) {
             seteuid(user);
             results.push_back(openAt(dir + "/file", O_RDWR).valid());
             results.push_back(openAt(dir + "/unnamed", O_RDWR).valid());
             seteuid(0);
         }
         return results;
     }},
    {"what cannot be",
     [](const std::string& dir) -> Results {
         mkdir((dir + "/full").c_str(), 0755);
         write(dir + "/full/file", "");
         return {tell(rmdir((dir + "/full").c_str())),
                 tell(unlink((dir + "/full").c_str())),
                 tell(rmdir((dir + "/full/file").c_str())),
                 tell(unlink((dir + "/none").c_str())),
                 tell(mkdir((dir + "/full").c_str(), 0755)),
                 tell(link((dir + "/full").c_str(), (dir + "/l").c_str())),
                 tell(rename((dir + "/full").c_str(), (dir + "/full/in").c_str())),
                 tell(openAt(dir + "/full", O_WRONLY).get()),
                 tell(openAt(dir + "/" + std::string(256, 'n'), O_CREAT).get())};
     }},
};

// Every property of a tree's files that a user sees, times and places on the disk apart.
std::map<std::string, std::string> dumpOf(const fs::path& root) {
    std::map<std::string, std::string> dump;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        struct stat attributes = {};
        lstat(entry.path().c_str(), &attributes);
        std::string line =
            std::to_string(attributes.st_mode) + " " + std::to_string(attributes.st_nlink) + " " +
            std::to_string(attributes.st_uid) + ":" + std::to_string(attributes.st_gid) + " ";
        if (S_ISREG(attributes.st_mode)) {
            line += read(entry.path().string());
        } else if (S_ISLNK(attributes.st_mode)) {
            line += fs::read_symlink(entry.path()).string();
        }
        dump[entry.path().lexically_relative(root)] = line;
    }
    return dump;
}

TEST_F(EmulatedVolume, BehavesAsAPlainFolder) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "owners and devices can be compared by root only";
    }
    const fs::path plain = volume.root() / "plain";
    fs::create_directory(plain);
    chmod(volume.root().c_str(), 0755);  // other users come here as well
    for (const Behaviour& behaviour : kBehaviours) {
        SCOPED_TRACE(behaviour.name);
        const std::string here = at("side");
        const std::string there = plain / "side";
        mkdir(here.c_str(), 0755);
        mkdir(there.c_str(), 0755);
        EXPECT_EQ(behaviour.run(here), behaviour.run(there));
        EXPECT_EQ(dumpOf(here), dumpOf(there));
        EXPECT_EQ(dumpOf(here), dumpOf(volume.backing() / "side"));
        EXPECT_GT(fs::remove_all(here), 0U);
        fs::remove_all(there);
    }
    EXPECT_TRUE(fs::is_empty(volume.backing()));
}

TEST_F(EmulatedVolume, ListsTypesAndKeepsItsPlaceInAChangingFolder) {
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(openAt(at("f" + std::to_string(i)), O_CREAT).valid());
    }
    DIR* const dir = opendir(volume.mount().c_str());
    ASSERT_NE(dir, nullptr);
    int removed = 0;
    for (const dirent* entry = nullptr; (entry = readdir(dir)) != nullptr;) {
        if (entry->d_name[0] == 'f') {
            EXPECT_EQ(entry->d_type, DT_REG);
            removed += unlinkat(dirfd(dir), entry->d_name, 0) == 0 ? 1 : 0;
        }
    }
    EXPECT_EQ(removed, 1000);
    rewinddir(dir);
    int left = 0;
    while (readdir(dir) != nullptr) {
        ++left;
    }
    EXPECT_EQ(left, 2);  // "." and ".."
    closedir(dir);
}

int descriptorsOf(pid_t pid) {
    const fs::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<int>(std::distance(begin(all), end(all)));
}

TEST_F(EmulatedVolume, IdleFilesTakeNoDescriptors) {
    const int before = descriptorsOf(volume.pid());
    for (int i = 0; i < 1500; ++i) {
        ASSERT_TRUE(openAt(at(std::to_string(i)), O_CREAT).valid());
        ASSERT_EQ(link(at(std::to_string(i)).c_str(), at("l" + std::to_string(i)).c_str()), 0);
        ASSERT_EQ(unlink(at(std::to_string(i)).c_str()), 0);
        const UniqueFd unnamed = openAt(volume.mount().string(), O_TMPFILE | O_RDWR);
        ASSERT_EQ(linkOpen(unnamed.get(), at("u" + std::to_string(i))), 0);
    }
    EXPECT_LT(descriptorsOf(volume.pid()), before + 10);
}

TEST_F(EmulatedVolume, TreesMayBeDeep) {
    const std::string name(255, 'd');
    UniqueFd folder = openAt(volume.mount().string(), O_PATH);
    for (int depth = 0; depth < 60; ++depth) {
        ASSERT_EQ(mkdirat(folder.get(), name.c_str(), 0755), 0) << depth;
        folder = UniqueFd(openat(folder.get(), name.c_str(), O_PATH | O_CLOEXEC));
    }
    const UniqueFd file(openat(folder.get(), "file", O_CREAT | O_RDWR | O_CLOEXEC, 0644));
    EXPECT_EQ(::write(file.get(), "x", 1), 1);
    for (int depth = 60; depth > 0; --depth) {
        EXPECT_EQ(unlinkat(folder.get(), depth == 60 ? "file" : name.c_str(),
                           depth == 60 ? 0 : AT_REMOVEDIR),
                  0);
        folder = UniqueFd(openat(folder.get(), "..", O_PATH | O_CLOEXEC));
    }
}

// ---------------------------------------------------------------- the requests

uint32_t flagOf(int fd) {
    modify_check_info info = {0, MODIFY_CHECK_GET};
    EXPECT_EQ(ioctl(fd, F2FS_IOC_MODIFY_CHECK, &info), 0) << errno;
    return info.flag;
}

uint32_t flagOf(const std::string& path) {
    return flagOf(openAt(path, O_RDONLY).get());
}

int setMark(const std::string& path) {
    modify_check_info info = {MODIFY_CHECK_FLAG, MODIFY_CHECK_SET};
    return ioctl(openAt(path, O_RDONLY).get(), F2FS_IOC_MODIFY_CHECK, &info);
}

// {is_deduped, is_layered}
std::pair<int, int> stateOf(const std::string& path) {
    dedup_file_info info = {};
    EXPECT_EQ(ioctl(openAt(path, O_RDONLY).get(), F2FS_IOC_DEDUP_GET_FILE_INFO, &info), 0);
    return {info.is_deduped, info.is_layered};
}

int cloneInto(int fd, int source) {
    const clone_file_info info = {source, CLONE_FLAGS};
    return ioctl(fd, F2FS_IOC_CLONE_FILE, &info);
}

int snapshotInto(int fd, int source) {
    const snapshot_create_info info = {source, 0};
    return ioctl(fd, F2FS_IOC_SNAPSHOT_CREATE, &info);
}

class Requests : public EmulatedVolume {
  protected:
    void SetUp() override {
        EmulatedVolume::SetUp();
        if (!IsSkipped() && !HasFatalFailure()) {
            write(at("source"), "source data");
            write(at("file"), "file data");
            prepare("source");
        }
    }
    void prepare(const std::string& name) {
        const UniqueFd source = openAt(at(name), O_RDWR);
        const UniqueFd clone = openAt(volume.mount().string(), O_TMPFILE | O_RDWR, 0770);
        const int32_t word = clone.get();
        ASSERT_EQ(cloneInto(clone.get(), source.get()), 0) << errno;
        ASSERT_EQ(ioctl(source.get(), F2FS_IOC_SNAPSHOT_PREPARE, &word), 0) << errno;
    }
};

struct Change {
    const char* name;
    bool clears;
    std::function<long(const std::string& path, int fd)> make;  // fd: open since before the mark
};

// Each is done to a marked file.
const Change kChanges[] = {
    {"write", true, [](auto&, int fd) { return ::write(fd, "x", 1); }},
    {"write of the same byte", true, [](auto&, int fd) { return pwrite(fd, "f", 1, 0); }},
    {"write through another descriptor", true,
     [](auto& path, int) { return ::write(openAt(path, O_WRONLY).get(), "x", 1); }},
    {"write through another name", true,
     [](auto& path, int) {
         link(path.c_str(), (path + ".link").c_str());
         return ::write(openAt(path + ".link", O_WRONLY | O_APPEND).get(), "x", 1);
     }},
    {"ftruncate", true, [](auto&, int fd) { return ftruncate(fd, 3); }},
    {"truncate", true, [](auto& path, int) { return truncate(path.c_str(), 30); }},
    {"truncate to the same size", true, [](auto& path, int) { return truncate(path.c_str(), 9); }},
    {"open to truncate", true,
     [](auto& path, int) { return openAt(path, O_WRONLY | O_TRUNC).get(); }},
    {"open to read and truncate", true,
     [](auto& path, int) { return openAt(path, O_RDONLY | O_TRUNC).get(); }},
    {"create to truncate", true,
     [](auto& path, int) { return openAt(path, O_RDWR | O_CREAT | O_TRUNC).get(); }},
    {"fallocate", true, [](auto&, int fd) { return fallocate(fd, 0, 0, 5000); }},
    {"fallocate, size kept", true,
     [](auto&, int fd) { return fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, 5000); }},
    {"fallocate, hole", true,
     [](auto&, int fd) { return fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 1); }},
    {"fallocate, zeros", true,
     [](auto&, int fd) { return fallocate(fd, FALLOC_FL_ZERO_RANGE, 0, 1); }},
    {"copy_file_range", true,
     [](auto& path, int fd) {
         const UniqueFd from = openAt(fs::path(path).replace_filename("source"), O_RDONLY);
         return copy_file_range(from.get(), nullptr, fd, nullptr, 4, 0);
     }},
    {"clone into it", true,
     [](auto& path, int fd) {
         return cloneInto(fd, openAt(fs::path(path).replace_filename("source"), O_RDONLY).get());
     }},
    {"snapshot into it", true,
     [](auto& path, int fd) {
         return snapshotInto(fd, openAt(fs::path(path).replace_filename("source"), O_RDONLY).get());
     }},
    {"read", false,
     [](auto&, int fd) {
         char byte = 0;
         return pread(fd, &byte, 1, 0);
     }},
    {"open to write", false, [](auto& path, int) { return openAt(path, O_RDWR).get(); }},
    {"chmod", false, [](auto& path, int) { return chmod(path.c_str(), 0600); }},
    {"utimensat", false, [](auto& path, int) { return utimensat(-1, path.c_str(), nullptr, 0); }},
    {"setxattr", false, [](auto& path, int) { return setxattr(path.c_str(), "user.x", "", 0, 0); }},
    {"link and unlink", false,
     [](auto& path, int) {
         link(path.c_str(), (path + ".link").c_str());
         return unlink((path + ".link").c_str());
     }},
    {"rename", false,
     [](auto& path, int) {
         rename(path.c_str(), (path + ".moved").c_str());
         return rename((path + ".moved").c_str(), path.c_str());
     }},
    {"clone from it", false,
     [](auto& path, int fd) {
         return cloneInto(openAt(path + ".clone", O_RDWR | O_CREAT).get(), fd);
     }},
    {"fsync", false, [](auto&, int fd) { return fsync(fd); }},
};

TEST_F(Requests, ChangesOfDataClearTheMarkAndNothingElseDoes) {
    for (const bool remounted : {false, true}) {  // known to the daemon, and read from the disk
        for (const Change& change : kChanges) {
            SCOPED_TRACE(change.name);
            write(at("file"), "file data");
            ASSERT_EQ(setMark(at("file")), 0);
            ASSERT_EQ(flagOf(at("file")), MODIFY_CHECK_FLAG);
            if (remounted) {
                ASSERT_TRUE(volume.remount());
            }
            const UniqueFd fd = openAt(at("file"), O_RDWR);
            if (change.make(at("file"), fd.get()) < 0) {
                EXPECT_EQ(errno, EOPNOTSUPP);  // by the backing file system, for one fallocate mode
                continue;
            }
            EXPECT_EQ(flagOf(fd.get()), change.clears ? MODIFY_CHECK_FLAG & ~MODIFY_CHECK_UNCHANGED
                                                      : MODIFY_CHECK_FLAG);
        }
    }
}

TEST_F(Requests, APreparedFileIsSnapshotAndIndependentAfterwards) {
    EXPECT_EQ(stateOf(at("source")), std::make_pair(0, 1));
    const UniqueFd source = openAt(at("source"), O_RDONLY);
    write(at("target"), std::string(10000, 'l'));  // longer than what replaces it
    const UniqueFd target = openAt(at("target"), O_RDWR | O_APPEND);
    struct stat attributes = {};
    char data[32] = {};
    ASSERT_EQ(fstat(target.get(), &attributes), 0);
    ASSERT_EQ(pread(target.get(), data, sizeof(data), 0), 32);
    ASSERT_EQ(snapshotInto(target.get(), source.get()), 0) << errno;
    // At once, not when a cache runs out.
    ASSERT_EQ(pread(target.get(), data, sizeof(data), 0), 11);
    EXPECT_EQ(std::string(data, 11), "source data");
    ASSERT_EQ(fstat(target.get(), &attributes), 0);
    EXPECT_EQ(attributes.st_size, 11);
    ASSERT_EQ(::write(target.get(), "++++", 4), 4);
    ASSERT_EQ(snapshotInto(target.get(), source.get()), 0) << errno;
    EXPECT_EQ(::write(target.get(), "+", 1), 1);  // to the end, which the kernel does not know yet
    EXPECT_EQ(read(at("target")), "source data+");
    EXPECT_EQ(stateOf(at("target")), std::make_pair(1, 0));
    write(at("source"), "other");
    EXPECT_EQ(read(at("target")), "source data+");
    EXPECT_EQ(read(at("source")), "other");
    const uint32_t zero = 0;
    EXPECT_EQ(ioctl(target.get(), F2FS_IOC_DEDUP_REVOKE, &zero), 0);
    EXPECT_EQ(ioctl(source.get(), F2FS_IOC_DEDUP_REVOKE, &zero), 0);
    EXPECT_EQ(stateOf(at("target")), std::make_pair(0, 0));
    EXPECT_EQ(stateOf(at("source")), std::make_pair(0, 0));
    EXPECT_EQ(read(at("target")), "source data+");
}

TEST_F(Requests, SnapshotsKeepHolesAndSizesBeyond4GiB) {
    const off_t far = off_t{5} << 30;
    const UniqueFd source = openAt(at("source"), O_RDWR);
    const UniqueFd target = openAt(at("target"), O_RDWR | O_CREAT);
    ASSERT_EQ(pwrite(source.get(), "far", 3, far), 3);
    ASSERT_EQ(ftruncate(source.get(), far + (1 << 20)), 0);
    ASSERT_EQ(pwrite(target.get(), "old", 3, 1 << 20), 3);
    ASSERT_EQ(snapshotInto(target.get(), source.get()), 0) << errno;
    struct stat attributes = {};
    ASSERT_EQ(fstat(target.get(), &attributes), 0);
    EXPECT_EQ(attributes.st_size, far + (1 << 20));
    EXPECT_LT(attributes.st_blocks, 100);
    char data[4] = {};
    EXPECT_EQ(pread(target.get(), data, 3, far), 3);
    EXPECT_STREQ(data, "far");
    EXPECT_EQ(pread(target.get(), data, 3, 0), 3);
    EXPECT_STREQ(data, "sou");
    EXPECT_EQ(pread(target.get(), data, 3, 1 << 20), 3);
    EXPECT_STREQ(data, "");
}

// Through one, data would change without the emulator's knowledge.
TEST_F(Requests, SharedMappingsAreRefused) {
    const UniqueFd named = openAt(at("file"), O_RDWR);
    const UniqueFd made = openAt(at("new"), O_RDWR | O_CREAT);
    const UniqueFd unnamed = openAt(volume.mount().string(), O_TMPFILE | O_RDWR);
    for (const int fd : {named.get(), made.get(), unnamed.get()}) {
        EXPECT_EQ(mmap(nullptr, 1, PROT_WRITE, MAP_SHARED, fd, 0), MAP_FAILED);
        EXPECT_EQ(errno, ENODEV);
    }
}

// A writer counts at both ends of the file, first at its begin. At any instant the end is at most
// one behind.
TEST_F(Requests, ASnapshotIsOfOneInstant) {
    constexpr off_t kEnd = 8 << 20;
    std::atomic<bool> done{false};
    write(at("source"), "");
    std::thread writer([&] {
        const UniqueFd fd = openAt(at("source"), O_RDWR);
        for (uint64_t count = 1; !done; ++count) {
            pwrite(fd.get(), &count, sizeof(count), 0);
            pwrite(fd.get(), &count, sizeof(count), kEnd);
        }
    });
    const UniqueFd source = openAt(at("source"), O_RDONLY);
    for (int i = 0; i < 200; ++i) {
        uint64_t counts[2] = {};
        const UniqueFd target = openAt(at("target"), O_RDWR | O_CREAT | O_TRUNC);
        EXPECT_EQ(snapshotInto(target.get(), source.get()), 0) << errno;
        pread(target.get(), &counts[0], sizeof(uint64_t), 0);
        pread(target.get(), &counts[1], sizeof(uint64_t), kEnd);
        EXPECT_LE(counts[0] - counts[1], 1U) << counts[0] << " and " << counts[1];
    }
    done = true;
    writer.join();
}

TEST_F(Requests, StateSurvivesTheDaemonAndIsHidden) {
    const std::pair<const char*, std::function<void()>> ends[] = {
        {"remount", [&] { ASSERT_TRUE(volume.remount()); }}, {"kill", [&] {
                                                                  volume.kill9();
                                                                  ASSERT_TRUE(volume.start());
                                                              }}};
    ASSERT_EQ(setMark(at("source")), 0);
    for (const auto& [name, end] : ends) {
        SCOPED_TRACE(name);
        end();
        EXPECT_EQ(flagOf(at("source")), MODIFY_CHECK_FLAG);
        EXPECT_EQ(stateOf(at("source")), std::make_pair(0, 1));
        EXPECT_EQ(read(at("source")), "source data");
    }
    char value[64];
    const std::string path = at("source");
    const char* const hidden = "user.f2fs_emulator";
    EXPECT_GT(getxattr((volume.backing() / "source").c_str(), hidden, value, sizeof(value)), 0);
    EXPECT_EQ(listxattr(path.c_str(), value, sizeof(value)), 0);
    EXPECT_EQ(errorOf(getxattr(path.c_str(), hidden, value, sizeof(value))), ENODATA);
    EXPECT_EQ(errorOf(setxattr(path.c_str(), hidden, "", 0, 0)), EPERM);
    EXPECT_EQ(errorOf(removexattr(path.c_str(), hidden)), ENODATA);
    EXPECT_EQ(flagOf(path), MODIFY_CHECK_FLAG);
}

TEST_F(Requests, RefusalsLeaveTheFileAlone) {
    const UniqueFd source = openAt(at("source"), O_RDWR);
    const UniqueFd file = openAt(at("file"), O_RDWR);
    const UniqueFd reader = openAt(at("file"), O_RDONLY);
    const UniqueFd writer = openAt(at("source"), O_WRONLY);
    const UniqueFd path = openAt(at("source"), O_PATH);
    const UniqueFd folder = openAt(volume.mount().string(), O_RDONLY);
    const UniqueFd foreign = openAt(volume.backing() / "source", O_RDONLY);
    struct Argument {
        int32_t descriptor;
        uint32_t second;
    };
    const auto F = static_cast<int32_t>(CLONE_FLAGS);
    const struct {
        int line;
        int fd;
        unsigned long request;
        Argument argument;
        int error;
    } refusals[] = {
        {__LINE__, file.get(), F2FS_IOC_CLONE_FILE, {-1, CLONE_FLAGS}, EBADF},
        {__LINE__, file.get(), F2FS_IOC_CLONE_FILE, {987654, CLONE_FLAGS}, EBADF},
        {__LINE__, file.get(), F2FS_IOC_CLONE_FILE, {writer.get(), CLONE_FLAGS}, EBADF},
        {__LINE__, file.get(), F2FS_IOC_CLONE_FILE, {path.get(), CLONE_FLAGS}, EBADF},
        {__LINE__, file.get(), F2FS_IOC_CLONE_FILE, {foreign.get(), CLONE_FLAGS}, EXDEV},
        {__LINE__, file.get(), F2FS_IOC_CLONE_FILE, {folder.get(), CLONE_FLAGS}, EINVAL},
        {__LINE__, file.get(), F2FS_IOC_CLONE_FILE, {file.get(), CLONE_FLAGS}, EINVAL},
        {__LINE__, file.get(), F2FS_IOC_CLONE_FILE, {source.get(), 0}, EINVAL},
        {__LINE__, reader.get(), F2FS_IOC_CLONE_FILE, {source.get(), CLONE_FLAGS}, EBADF},
        {__LINE__, file.get(), F2FS_IOC_SNAPSHOT_CREATE, {-1, 0}, EBADF},
        {__LINE__, file.get(), F2FS_IOC_SNAPSHOT_CREATE, {foreign.get(), 0}, EXDEV},
        {__LINE__, file.get(), F2FS_IOC_SNAPSHOT_CREATE, {source.get(), 1}, EINVAL},
        {__LINE__, reader.get(), F2FS_IOC_SNAPSHOT_CREATE, {source.get(), 0}, EBADF},
        {__LINE__, source.get(), F2FS_IOC_SNAPSHOT_CREATE, {reader.get(), 0}, EINVAL},
        {__LINE__, source.get(), F2FS_IOC_SNAPSHOT_CREATE, {source.get(), 0}, EINVAL},
        {__LINE__, source.get(), F2FS_IOC_SNAPSHOT_PREPARE, {-5, 0}, EBADF},
        {__LINE__, source.get(), F2FS_IOC_SNAPSHOT_PREPARE, {folder.get(), 0}, EINVAL},
        {__LINE__, source.get(), F2FS_IOC_SNAPSHOT_PREPARE, {file.get(), 0}, EINVAL},
        {__LINE__, file.get(), F2FS_IOC_DEDUP_REVOKE, {1, 0}, EINVAL},
        {__LINE__, file.get(), F2FS_IOC_MODIFY_CHECK, {F, 0}, EINVAL},
        {__LINE__, file.get(), F2FS_IOC_MODIFY_CHECK, {F, 12}, EINVAL},
        {__LINE__, folder.get(), F2FS_IOC_MODIFY_CHECK, {0, MODIFY_CHECK_GET}, ENOTTY},
        {__LINE__, folder.get(), F2FS_IOC_DEDUP_GET_FILE_INFO, {0, 0}, ENOTTY},
        {__LINE__, file.get(), _IO(F2FS_IOC_MAGIC, 0x6A), {0, 0}, ENOTTY},
        {__LINE__, file.get(), _IOW(F2FS_IOC_MAGIC, 0x6C, int32_t), {0, 0}, ENOTTY},
        {__LINE__, file.get(), _IOWR(F2FS_IOC_MAGIC, 1, int32_t), {0, 0}, ENOTTY},
    };
    ASSERT_EQ(setMark(at("file")), 0);
    ASSERT_EQ(setMark(at("source")), 0);
    for (auto refusal : refusals) {
        EXPECT_EQ(errorOf(ioctl(refusal.fd, refusal.request, &refusal.argument)), refusal.error)
            << "line " << refusal.line;
    }
    EXPECT_EQ(read(at("file")), "file data");
    EXPECT_EQ(read(at("source")), "source data");
    EXPECT_EQ(flagOf(at("file")), MODIFY_CHECK_FLAG);
    EXPECT_EQ(flagOf(at("source")), MODIFY_CHECK_FLAG);
    EXPECT_EQ(stateOf(at("file")), std::make_pair(0, 0));
    EXPECT_EQ(stateOf(at("source")), std::make_pair(0, 1));
}

// Without a mount: whatever comes in is answered, and only what the request may touch is touched.
TEST(EmulatorRequests, AnyBytesAreAnswered) {
    const EmulatorMount place;
    write(place.backing() / "a", "a");
    write(place.backing() / "b", "b");
    emulator::Volume world;
    ASSERT_EQ(emulator::openVolume(place.backing().c_str(), world), 0);
    world.mount_device = world.backing_device;
    std::vector<UniqueFd> fds;
    std::vector<emulator::Inode*> inodes;
    for (const char* name : {"a", "b", "."}) {
        struct stat attributes;
        int error = 0;
        inodes.push_back(emulator::lookUp(world, *world.root, name, attributes, error));
        ASSERT_NE(inodes.back(), nullptr);
        fds.push_back(openAt(place.backing() / name, *name == '.' ? O_RDONLY : O_RDWR));
    }
    const uint32_t words[] = {0,
                              4,
                              8,
                              CLONE_FLAGS,
                              0x7fffffff,
                              0x80000000,
                              0xffffffff,
                              MODIFY_CHECK_FLAG,
                              static_cast<uint32_t>(fds[0].get()),
                              static_cast<uint32_t>(fds[1].get())};
    const uint32_t numbers[] = {F2FS_IOC_DEDUP_REVOKE,    F2FS_IOC_DEDUP_GET_FILE_INFO,
                                F2FS_IOC_CLONE_FILE,      F2FS_IOC_MODIFY_CHECK,
                                F2FS_IOC_SNAPSHOT_CREATE, F2FS_IOC_SNAPSHOT_PREPARE};
    std::mt19937 random(20);
    std::map<int, int> answers;
    for (int i = 0; i < 20000; ++i) {
        const size_t file = random() % 3;
        const size_t in_size = random() % 4 == 0 ? random() % 9 : 8;
        const size_t out_size = random() % 4 == 0 ? random() % 9 : 8;
        // Exactly as large as told, for the address sanitizer.
        const auto in = std::make_unique<char[]>(in_size);
        const auto out = std::make_unique<char[]>(out_size);
        const uint32_t argument[] = {words[random() % std::size(words)],
                                     words[random() % std::size(words)]};
        memcpy(in.get(), argument, in_size);
        const uint32_t number = random() % 8 == 0 ? static_cast<uint32_t>(random())
                                                  : numbers[random() % std::size(numbers)];
        size_t answered = 0;
        bool size_changed = false;
        const int error = emulator::serveRequest(world,
                                                 {*inodes[file], fds[file].get(), getpid(), number,
                                                  in.get(), in_size, out.get(), out_size},
                                                 answered, size_changed);
        EXPECT_LE(answered, out_size);
        ++answers[error];
    }
    for (const auto& [error, times] : answers) {
        EXPECT_TRUE(error == 0 || error == EINVAL || error == EBADF || error == EXDEV ||
                    error == ESTALE || error == ENOTTY)
            << error;
    }
    EXPECT_GT(answers[0], 1000);
    EXPECT_LE(read(place.backing() / "a").size(), 1U);
}

// ---------------------------------------------------------------- the program

TEST(EmulatorProgram, SaysWhatIsWrongInOneLine) {
    if (const char* reason = EmulatorMount::unavailableReason()) {
        GTEST_SKIP() << reason;
    }
    EmulatorMount volume;
    ASSERT_TRUE(volume.start()) << volume.errors();
    const std::string root = volume.root();
    fs::create_directories(root + "/other/inside");
    write(root + "/file", "");
    const std::string usage = runProcess({F2FS_EMULATOR_PATH, "--help"}).out;
    EXPECT_EQ(usage.compare(0, 21, "Usage: f2fs_emulator "), 0);
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string out;
        std::string err;
    } cases[] = {
        {{"-h"}, 0, usage, ""},
        {{"--version"}, 0, "f2fs_emulator 1.0.0\n", ""},
        {{}, 2, "", usage},
        {{"other"}, 2, "", usage},
        {{"other", "mount", "file"}, 2, "", usage},
        {{"other", "mount", "-z"}, 2, "", usage},
        {{"other", "mount", "-o"}, 2, "", usage},
        {{"none", "mount"}, 1, "", "open the backing folder none: No such file or directory"},
        {{"file", "mount"}, 1, "", "open the backing folder file: Not a directory"},
        {{"/proc", "mount"},
         1,
         "",
         std::string("make an unnamed temporary file in /proc: ") +
             (geteuid() == 0 ? "Operation not supported" : "Permission denied")},
        {{"other", "none"}, 1, "", "mount on none: No such file or directory"},
        {{"other", "file"}, 1, "", "mount on file: Not a directory"},
        {{"other", "other/inside"},
         1,
         "",
         "mount on other/inside: it is inside the backing folder"},
        {{"other", "mount"},
         1,
         "",
         "mount on mount: Device or resource busy; it is a mount point already, to be freed with "
         "fusermount3 -u"},
        {{"other", "other", "-o", "nonsense"},
         1,
         "",
         "mount on other: unknown option(s): `-o nonsense'"},
    };
    const fs::path here = fs::current_path();
    fs::current_path(root);
    for (const auto& one : cases) {
        std::vector<std::string> words = {F2FS_EMULATOR_PATH};
        words.insert(words.end(), one.arguments.begin(), one.arguments.end());
        const Outcome outcome = runProcess(words);
        EXPECT_EQ(outcome.status, one.status) << testing::PrintToString(words);
        EXPECT_EQ(outcome.out, one.out);
        EXPECT_EQ(outcome.err,
                  one.status == 1 ? "f2fs_emulator: cannot " + one.err + "\n" : one.err);
    }
    fs::current_path(here);
}

TEST_F(EmulatedVolume, EndsCleanlyHoweverItIsTold) {
    struct stat attributes = {};
    stat(volume.backing().c_str(), &attributes);
    const dev_t unmounted = attributes.st_dev;
    std::signal(SIGINT, SIG_IGN);  // as a shell does for a job in the background
    ASSERT_TRUE(volume.remount()) << volume.errors();
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, 0}) {
        SCOPED_TRACE(signal);
        const UniqueFd busy = openAt(at("file"), O_CREAT | O_RDWR);
        if (signal != 0) {
            EXPECT_EQ(volume.stop(signal), 0);
        } else {
            EXPECT_EQ(runProcess({"fusermount3", "-uz", volume.mount()}).status, 0);
        }
        ASSERT_EQ(stat(volume.mount().c_str(), &attributes), 0);
        EXPECT_EQ(attributes.st_dev, unmounted);
        if (signal != 0) {
            ASSERT_TRUE(volume.start()) << volume.errors();
        }
    }
    EXPECT_EQ(volume.waitForEnd(), 0);
    std::signal(SIGINT, SIG_DFL);
}

TEST(EmulatorProgram, GoesToTheBackgroundOnceMounted) {
    if (const char* reason = EmulatorMount::unavailableReason()) {
        GTEST_SKIP() << reason;
    }
    const EmulatorMount folders;
    const fs::path here = fs::current_path();
    fs::current_path(folders.root());
    EXPECT_EQ(runProcess({F2FS_EMULATOR_PATH, "backing", "mount"}).status, 0);
    fs::current_path(here);
    write(folders.mount() / "file", "x");
    EXPECT_EQ(setMark(folders.mount() / "file"), 0);
    EXPECT_EQ(runProcess({"fusermount3", "-u", folders.mount()}).status, 0);
    EXPECT_EQ(read(folders.backing() / "file"), "x");
}

}  // namespace
