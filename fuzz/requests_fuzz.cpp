// SPDX-License-Identifier: Apache-2.0
// The emulator's request handler beside a model of what it promises: the same requests succeed, and
// all files have the state and the content that these leave them with. A descriptor that is lost
// shows too, in the run that meets the limit.
#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "emulator/requests.h"
#include "fuzz/fuzz.h"
#include "snapshot/f2fs_ioctl.h"

namespace {

struct File {
    explicit File(const char* file_name) : name(file_name) {}

    std::string name;
    emulator::Inode* inode = nullptr;
    int fd = -1;
    int other_fd = -1;  // with less access
    // What the driver promises about it.
    std::string content;
    uint32_t flag = 0;
    bool is_layered = false;
    const File* cloned_from = nullptr;
};

struct Descriptor {
    int fd = -1;
    const File* readable = nullptr;
};

// Three files and a folder. The process is its own caller, and the backing folder its own mount.
struct World {
    World() {
        REQUIRE(emulator::openVolume(scratch.path.c_str(), volume) == 0);
        fs::create_directory(scratch.path / "folder");
        for (size_t i = 0; i < files.size(); ++i) {
            File& file = files[i];
            const std::string path = scratch.path / file.name;
            const bool is_folder = file.name == "folder";
            file.fd = open(path.c_str(), is_folder ? O_RDONLY : O_CREAT | O_RDWR, 0600);
            file.other_fd = open(path.c_str(), file.name == "b" ? O_WRONLY : O_RDONLY);
            struct stat attributes = {};
            int error = 0;
            file.inode =
                emulator::lookUp(volume, *volume.root, file.name.c_str(), attributes, error);
            REQUIRE(file.inode != nullptr);
            volume.mount_device = attributes.st_dev;
            file.content = is_folder ? "" : std::string(i + 1, 'x') + file.name;
            REQUIRE(is_folder || write(file.fd, file.content.data(), file.content.size()) > 0);
            descriptors[i] = {file.fd, is_folder ? nullptr : &file};
        }
        descriptors[4] = {files[0].other_fd, &files[0]};
        descriptors[5] = {files[1].other_fd, nullptr};  // write-only
        descriptors[6] = {open((scratch.path / "a").c_str(), O_PATH), nullptr};
        descriptors[7] = {memfd_create("elsewhere", 0), nullptr};
    }
    ~World() {
        for (const File& file : files) {
            close(file.fd);
            close(file.other_fd);
        }
        close(descriptors[6].fd);
        close(descriptors[7].fd);
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    Scratch scratch;
    emulator::Volume volume;
    std::array<File, 4> files = {File("a"), File("b"), File("c"), File("folder")};
    std::array<Descriptor, 9> descriptors = {};  // the last one names nothing
};

// The model: whether a whole request succeeds, and what it changes then.
bool model(World& world, File& file, const emulator::Request& request, const uint32_t* words) {
    const auto* named = std::find_if(
        world.descriptors.begin(), world.descriptors.end(),
        [&](const Descriptor& known) { return known.fd == static_cast<int>(words[0]); });
    const File* source =
        named != world.descriptors.end() && request.pid == getpid() ? named->readable : nullptr;
    const bool takes_data = source != nullptr && source != &file &&
                            (fcntl(request.fd, F_GETFL) & O_ACCMODE) != O_RDONLY;
    bool succeeds = true;
    switch (request.number) {
        case F2FS_IOC_DEDUP_GET_FILE_INFO:
            return true;
        case F2FS_IOC_DEDUP_REVOKE:
            file.is_layered = file.is_layered && words[0] != 0;
            return words[0] == 0;
        case F2FS_IOC_MODIFY_CHECK:
            file.flag = words[1] == MODIFY_CHECK_SET ? words[0] : file.flag;
            return words[1] == MODIFY_CHECK_SET || words[1] == MODIFY_CHECK_GET;
        case F2FS_IOC_SNAPSHOT_PREPARE:
            succeeds = source != nullptr && source->cloned_from == &file;
            file.is_layered = file.is_layered || succeeds;
            return succeeds;
        case F2FS_IOC_CLONE_FILE:
            succeeds = takes_data && words[1] == CLONE_FLAGS;
            break;
        default:
            succeeds = takes_data && words[1] == 0 && source->is_layered;
    }
    if (succeeds) {
        file.content = source->content;
        file.flag &= ~MODIFY_CHECK_UNCHANGED;
        file.cloned_from = request.number == F2FS_IOC_CLONE_FILE ? source : nullptr;
    }
    return succeeds;
}

// Serves a request on buffers of exactly the sizes given.
int serve(World& world, emulator::Request request, const uint32_t* words,
          std::vector<uint8_t>& answer) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(words);
    const std::vector<uint8_t> in(bytes, bytes + request.in_size);
    answer.assign(request.out_size, 0xAA);
    request.in = in.data();
    request.out = answer.data();
    size_t answered = 0;
    bool size_changed = false;
    struct stat before = {};
    struct stat after = {};
    fstat(request.fd, &before);
    const int error = serveRequest(world.volume, request, answered, size_changed);
    fstat(request.fd, &after);
    REQUIRE(error >= 0 && answered <= answer.size() && (error == 0 || answered == 0));
    REQUIRE(size_changed || before.st_size == after.st_size);
    answer.resize(answered);
    return error;
}

void checkFile(World& world, File& file) {
    std::string content(file.content.size() + 1, '\0');
    const ssize_t length = pread(file.fd, content.data(), content.size(), 0);
    REQUIRE(content.substr(0, static_cast<size_t>(length)) == file.content);

    const uint32_t get[] = {0, MODIFY_CHECK_GET};
    std::vector<uint8_t> answer;
    emulator::Request request = {*file.inode, file.fd, 0,       F2FS_IOC_MODIFY_CHECK,
                                 nullptr,     8,       nullptr, 8};
    REQUIRE(serve(world, request, get, answer) == 0);
    REQUIRE(answer.size() == 8 && memcmp(answer.data(), &file.flag, 4) == 0);
    request.number = F2FS_IOC_DEDUP_GET_FILE_INFO;
    REQUIRE(serve(world, request, get, answer) == 0);
    dedup_file_info info = {};
    REQUIRE(answer.size() == sizeof info);
    memcpy(&info, answer.data(), sizeof info);
    REQUIRE(info.is_layered == (file.is_layered ? 1 : 0) && info.reserved == 0);
}

constexpr uint32_t NAMES_A_FILE = 0xF0F0F0F0;
constexpr uint32_t USUAL[][3] = {
    {F2FS_IOC_DEDUP_REVOKE, 0, 0},
    {F2FS_IOC_DEDUP_GET_FILE_INFO, 0, 0},
    {F2FS_IOC_MODIFY_CHECK, MODIFY_CHECK_FLAG, MODIFY_CHECK_SET},
    {F2FS_IOC_MODIFY_CHECK, 0, MODIFY_CHECK_GET},
    {F2FS_IOC_CLONE_FILE, NAMES_A_FILE, CLONE_FLAGS},
    {F2FS_IOC_SNAPSHOT_CREATE, NAMES_A_FILE, 0},
    {F2FS_IOC_SNAPSHOT_PREPARE, NAMES_A_FILE, 0},
};
using Words = uint32_t[4];  // more than any record has

// Mostly leaves a request as it is; else puts one thing about it out of the ordinary.
void disturb(emulator::Request& request, Words& words, int other_fd, FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange(0, 15)) {
        case 0:
            request.number = input.ConsumeIntegral<uint32_t>();
            break;
        case 1:
            words[0] = input.ConsumeIntegral<uint32_t>();
            break;
        case 2:
            words[1] = input.ConsumeIntegral<uint32_t>();
            break;
        case 3:
            request.in_size = input.ConsumeIntegralInRange<size_t>(0, sizeof words);
            break;
        case 4:
            request.out_size = input.ConsumeIntegralInRange<size_t>(0, sizeof words);
            break;
        case 5:
            request.pid = input.ConsumeIntegralInRange(-1, 100);
            break;
        case 6:
            request.fd = other_fd;
            break;
        default:
            break;
    }
}

void serveAndCompare(World& world, File& file, const emulator::Request& request,
                     const Words& words) {
    const bool known = std::any_of(std::begin(USUAL), std::end(USUAL),
                                   [&](const auto& row) { return row[0] == request.number; });
    const size_t record = _IOC_SIZE(request.number);
    const bool is_whole =
        ((_IOC_DIR(request.number) & _IOC_WRITE) == 0 || request.in_size >= record) &&
        ((_IOC_DIR(request.number) & _IOC_READ) == 0 || request.out_size >= record);
    std::vector<uint8_t> answer;
    const int error = serve(world, request, words, answer);
    if (!known || file.name == "folder") {
        REQUIRE(error == ENOTTY);
    } else if (!is_whole) {
        REQUIRE(error == EINVAL);
    } else {
        REQUIRE((error == 0) == model(world, file, request, words));
    }
}

// Picks one of a list.
template <typename List>
auto& pick(List& list, FuzzedDataProvider& input) {
    return list[input.ConsumeIntegralInRange<size_t>(0, std::size(list) - 1)];
}

void serveOne(World& world, FuzzedDataProvider& input) {
    const uint32_t* usual = pick(USUAL, input);
    File& file = pick(world.files, input);
    const auto named = static_cast<uint32_t>(pick(world.descriptors, input).fd);
    Words words = {usual[1] == NAMES_A_FILE ? named : usual[1], usual[2]};
    emulator::Request request = {*file.inode, file.fd, getpid(), usual[0], nullptr, 8, nullptr, 8};
    disturb(request, words, file.other_fd, input);
    serveAndCompare(world, file, request, words);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    World world;
    while (input.remaining_bytes() > 0) {
        serveOne(world, input);
        for (File& file : world.files) {
            if (file.name != "folder") {
                checkFile(world, file);
            }
        }
    }
    return 0;
}
