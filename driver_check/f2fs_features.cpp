// SPDX-License-Identifier: Apache-2.0
// Files with attributes that change how F2FS stores or guards them. Each check makes such a file
// where the volume and the user's rights allow it.
#include <linux/f2fs.h>
#include <linux/fs.h>
#include <linux/fscrypt.h>
#include <linux/fsverity.h>
#include <linux/quota.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "driver_check/checks.h"

namespace driver_check::feature {
namespace {

// Expects all that the library relies on, of one file.
void expectWhole(const File& source, const std::string& content) {
    layer(source);
    expectStored(source, content, "its bytes after it was prepared");
    setMark(source);
    const File snapshot = snapshotOf(source, "snapshot_of_it");
    expectMark(source, "SNAPSHOT_CREATE from it");
    expectStored(snapshot, content, "the bytes of its source");
    writeAt(source, "new", 0);
    expectNoMark(source, "a write");
    expectStored(snapshot, content, "the bytes of its source before the write");
}

// Expects that a snapshot is either refused or correct, and that the source is unchanged.
void expectWholeOrRefused(const File& source, const std::string& content) {
    const File snapshot = newFile("snapshot", "");
    const int error = tryCreate(snapshot, source.fd(), source.name());
    if (error == 0) {
        expectStored(snapshot, content, "the bytes of its source");
    } else {
        note("a snapshot of it is refused (%s)", nameOf(error).c_str());
    }
    expectContent(source, content, "the bytes it had");
}

void trySetting(int result, const char* what) {
    if (result != 0) {
        skip(format("%s: %s", what, nameOf(errno).c_str()));
    }
    did("%s", what);
}

void setFlag(const File& file, unsigned flag, bool value, const char* what) {
    unsigned flags = 0;
    if (ioctl(file.fd(), FS_IOC_GETFLAGS, &flags) != 0) {
        skip("FS_IOC_GETFLAGS: " + nameOf(errno));
    }
    flags = value ? flags | flag : flags & ~flag;
    trySetting(ioctl(file.fd(), FS_IOC_SETFLAGS, &flags), what);
}

// An encryption key of this volume. The destructor removes it.
class Key {
  public:
    Key() : directory_(".", O_RDONLY | O_DIRECTORY) {
        alignas(fscrypt_add_key_arg) char memory[sizeof(fscrypt_add_key_arg) + 64] = {};
        auto& add = *reinterpret_cast<fscrypt_add_key_arg*>(memory);
        add.key_spec.type = FSCRYPT_KEY_SPEC_TYPE_IDENTIFIER;
        add.raw_size = 64;
        const std::string raw = pattern(add.raw_size, static_cast<unsigned>(getpid()));
        std::copy(raw.begin(), raw.end(), memory + sizeof(add));
        trySetting(ioctl(directory_.fd(), FS_IOC_ADD_ENCRYPTION_KEY, &add),
                   "FS_IOC_ADD_ENCRYPTION_KEY");
        key_.key_spec = add.key_spec;
    }
    ~Key() {
        ioctl(directory_.fd(), FS_IOC_REMOVE_ENCRYPTION_KEY, &key_);
    }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    void encrypt(const File& directory) const {
        fscrypt_policy_v2 policy = {};
        policy.version = FSCRYPT_POLICY_V2;
        policy.contents_encryption_mode = FSCRYPT_MODE_AES_256_XTS;
        policy.filenames_encryption_mode = FSCRYPT_MODE_AES_256_CTS;
        policy.flags = FSCRYPT_POLICY_FLAGS_PAD_32;
        memcpy(policy.master_key_identifier, key_.key_spec.u.identifier,
               sizeof(policy.master_key_identifier));
        trySetting(ioctl(directory.fd(), FS_IOC_SET_ENCRYPTION_POLICY, &policy),
                   "FS_IOC_SET_ENCRYPTION_POLICY (AES-256-XTS) on a directory");
    }

  private:
    File directory_;
    fscrypt_remove_key_arg key_ = {};
};

void enter(const char* directory) {
    need(chdir(directory), "chdir");
}

// Bytes that the volume charges to the user of this process.
uint64_t chargedBytes() {
#if defined(__NR_quotactl_fd)
    const File directory(".", O_RDONLY | O_DIRECTORY);
    if_dqblk quota = {};
    if (syscall(__NR_quotactl_fd, directory.fd(), QCMD(Q_GETQUOTA, USRQUOTA), getuid(), &quota) !=
        0) {
        skip("the volume keeps no user quota (" + nameOf(errno) + ")");
    }
    return quota.dqb_curspace;
#else
    skip("quotactl_fd is unknown to the system that this program was built on");
#endif
}

}  // namespace

void encrypted() {
    unsigned char policy[sizeof(fscrypt_get_policy_ex_arg)] = {};
    auto* const arg = reinterpret_cast<fscrypt_get_policy_ex_arg*>(policy);
    arg->policy_size = sizeof(arg->policy);
    const File here(".", O_RDONLY | O_DIRECTORY);
    if (ioctl(here.fd(), FS_IOC_GET_ENCRYPTION_POLICY_EX, arg) == 0) {
        did("the directory is encrypted");
        expectWhole(newFile("source", pattern(SMALL)), pattern(SMALL));
        return;
    }
    need(mkdir("directory", 0755), "mkdir");
    const Key key;
    key.encrypt(File("directory", O_RDONLY | O_DIRECTORY));
    enter("directory");
    expectWhole(newFile("source", pattern(SMALL)), pattern(SMALL));
    enter("..");
}

void compressed() {
    const File source = newFile("source", "");
    setFlag(source, FS_COMPR_FL, true, "FS_IOC_SETFLAGS with FS_COMPR_FL");
    std::string content(64 * BLOCK, 'c');
    content.replace(0, 5, "start");
    writeAt(source, content, 0);
    dropPages(source);
    expectWhole(source, content);
}

void casefolded() {
    need(mkdir("directory", 0755), "mkdir");
    setFlag(File("directory", O_RDONLY | O_DIRECTORY), FS_CASEFOLD_FL, true,
            "FS_IOC_SETFLAGS with FS_CASEFOLD_FL");
    enter("directory");
    const File source = newFile("Source", pattern(SMALL));
    expectWhole(source, pattern(SMALL));
    setMark(source);
    expectMark(File("sOURCE", O_RDONLY), "a set, by a name that differs in case");
}

void pinned() {
    const File source = newFile("source", "");
    uint32_t pin = 1;
    trySetting(ioctl(source.fd(), F2FS_IOC_SET_PIN_FILE, &pin), "F2FS_IOC_SET_PIN_FILE");
    trySetting(fallocate(source.fd(), 0, 0, SMALL), "fallocate of a pinned file");
    writeAt(source, pattern(SMALL), 0);
    {
        const File clone = unnamedFile();
        const int error = tryClone(clone, source.fd(), source.name());
        if (error != 0 || tryPrepare(source, clone.fd(), clone.name()) != 0) {
            note("it cannot be prepared");
        }
    }
    expectWholeOrRefused(source, pattern(SMALL));
    setMark(source);
    writeAt(source, "new", 0);
    expectNoMark(source, "a write");
}

void immutable() {
    const File source = newFile("source", pattern(SMALL));
    const File other = newFile("other", pattern(SMALL, 2));
    layer(source);
    layer(other);
    setFlag(source, FS_IMMUTABLE_FL, true, "FS_IOC_SETFLAGS with FS_IMMUTABLE_FL");
    expectWholeOrRefused(source, pattern(SMALL));
    setFlag(source, FS_IMMUTABLE_FL, false, "FS_IOC_SETFLAGS without FS_IMMUTABLE_FL");
    expectStored(source, pattern(SMALL), "the bytes it had");
}

void verity() {
    layer(newFile("source", pattern(SMALL)));
    const File source("source", O_RDONLY);
    fsverity_enable_arg enable = {};
    enable.version = 1;
    enable.hash_algorithm = FS_VERITY_HASH_ALG_SHA256;
    enable.block_size = BLOCK;
    trySetting(ioctl(source.fd(), FS_IOC_ENABLE_VERITY, &enable), "FS_IOC_ENABLE_VERITY");
    expectWholeOrRefused(source, pattern(SMALL));
    dropPages(source);
    expectContent(source, pattern(SMALL), "the bytes that its digest covers");
}

void quota() {
    constexpr size_t SIZE = 1 << 20;
    const uint64_t before = chargedBytes();
    {
        const File source = newFile("source", pattern(SIZE));
        layer(source);
        expectStored(snapshotOf(source), pattern(SIZE), "the bytes of its source");
        note("source and snapshot of 1 MiB each: charged %llu KiB",
             static_cast<unsigned long long>((chargedBytes() - before) / 1024));
    }
    did("unlink of source and snapshot");
    need(unlink("source"), "unlink");
    need(unlink("snapshot"), "unlink");
    const File here(".", O_RDONLY | O_DIRECTORY);
    syncfs(here.fd());
    const uint64_t after = chargedBytes();
    if (after > before + SIZE / 2) {
        failed("the user to be charged as before",
               format("%llu bytes more", static_cast<unsigned long long>(after - before)));
    }
}

}  // namespace driver_check::feature
