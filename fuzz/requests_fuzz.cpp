// The emulator's request handler beside a model of what it promises: the same requests succeed, and
// all files have the state and the content that these leave them with. A descriptor that is lost
// shows too, in the run that meets the limit.
#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "f2fs_ioctl.h"
#include "fuzz.h"
#include "requests.h"

namespace {

constexpr uint32_t NAMES_A_FILE = 0xF0F0F0F0;  // stands for a descriptor in a table of requests
constexpr size_t READ_ONLY_A = 4;
constexpr size_t WRITE_ONLY_B = 5;

struct File {
    explicit File(const char* file_name) : name(file_name) {}

    std::string name;
    emulator::Inode* inode = nullptr;
    int fd = -1;
    ino_t number = 0;
    // What the driver promises about it.
    std::string content;
    uint32_t flag = 0;
    bool is_layered = false;
    const File* cloned_from = nullptr;
};

// Two files, one without a name, and a folder. The process is its own caller, and the backing
// folder its own mount.
struct World {
    World() {
        struct stat attributes = {};
        REQUIRE(emulator::openVolume(scratch.path.c_str(), volume) == 0);
        fs::create_directory(scratch.path / "folder");
        for (File& file : files) {
            const std::string path = scratch.path / file.name;
            int error = 0;
            if (file.name.empty()) {
                file.fd = open(path.c_str(), O_TMPFILE | O_RDWR, 0600);
                file.inode = emulator::adopt(volume, file.fd, attributes, error);
            } else {
                const int flags = fs::is_directory(path) ? O_RDONLY : O_CREAT | O_RDWR;
                file.fd = open(path.c_str(), flags, 0600);
                file.inode =
                    emulator::lookUp(volume, *volume.root, file.name.c_str(), attributes, error);
            }
            REQUIRE(file.inode != nullptr);
            file.number = attributes.st_ino;
            if (S_ISREG(attributes.st_mode)) {
                file.content = "content of " + file.name;
                REQUIRE(write(file.fd, file.content.data(), file.content.size()) > 0);
            }
        }
        volume.mount_device = device = attributes.st_dev;
        descriptors = {files[0].fd,
                       files[1].fd,
                       files[2].fd,
                       files[3].fd,
                       open((scratch.path / "a").c_str(), O_RDONLY),
                       open((scratch.path / "b").c_str(), O_WRONLY),
                       open((scratch.path / "a").c_str(), O_PATH),
                       memfd_create("elsewhere", 0),
                       -1};
    }
    ~World() {
        for (const int fd : descriptors) {
            close(fd);
        }
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // The file that a descriptor has open for reading.
    const File* findReadable(int fd) {
        struct stat attributes = {};
        const int flags = fcntl(fd, F_GETFL);
        if (flags < 0 || (flags & O_PATH) != 0 || (flags & O_ACCMODE) == O_WRONLY ||
            fstat(fd, &attributes) != 0 || attributes.st_dev != device) {
            return nullptr;
        }
        for (const File& file : files) {
            if (file.number == attributes.st_ino && file.name != "folder") {
                return &file;
            }
        }
        return nullptr;
    }

    Scratch scratch;
    emulator::Volume volume;
    dev_t device = 0;
    std::array<File, 4> files = {File("a"), File("b"), File(""), File("folder")};
    std::array<int, 9> descriptors = {};
};

// The model: whether a whole request succeeds, and what it changes then.
bool model(World& world, File& file, const emulator::Request& request, const uint32_t* words) {
    const File* named =
        request.pid == getpid() ? world.findReadable(static_cast<int>(words[0])) : nullptr;
    const bool takes_data =
        named != nullptr && named != &file && (fcntl(request.fd, F_GETFL) & O_ACCMODE) != O_RDONLY;
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
            if (named == nullptr || named->cloned_from != &file) {
                return false;
            }
            file.is_layered = true;
            return true;
        case F2FS_IOC_CLONE_FILE:
            if (!takes_data || words[1] != CLONE_FLAGS) {
                return false;
            }
            break;
        default:
            if (!takes_data || words[1] != 0 || !named->is_layered) {
                return false;
            }
    }
    file.content = named->content;
    file.flag &= ~MODIFY_CHECK_UNCHANGED;
    file.cloned_from = request.number == F2FS_IOC_CLONE_FILE ? named : nullptr;
    return true;
}

// Serves one request on buffers of exactly the sizes given.
int serve(World& world, const emulator::Request& like, const uint32_t* words,
          std::vector<uint8_t>& answer, bool& size_changed) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(words);
    const std::vector<uint8_t> in(bytes, bytes + like.in_size);
    answer.assign(like.out_size, 0xAA);
    emulator::Request request = like;
    request.in = in.data();
    request.out = answer.data();
    size_t answered = 0;
    const int error = serveRequest(world.volume, request, answered, size_changed);
    REQUIRE(error >= 0 && answered <= answer.size() && (error == 0 || answered == 0));
    answer.resize(answered);
    return error;
}

void checkFile(World& world, File& file) {
    std::string content(file.content.size() + 1, '\0');
    const ssize_t length = pread(file.fd, content.data(), content.size(), 0);
    REQUIRE(content.substr(0, static_cast<size_t>(length)) == file.content);

    const uint32_t get[] = {0, MODIFY_CHECK_GET};
    std::vector<uint8_t> answer;
    bool size_changed = false;
    REQUIRE(serve(world, {*file.inode, file.fd, 0, F2FS_IOC_MODIFY_CHECK, nullptr, 8, nullptr, 8},
                  get, answer, size_changed) == 0);
    REQUIRE(answer.size() == 8 && memcmp(answer.data(), &file.flag, 4) == 0);
    REQUIRE(serve(world,
                  {*file.inode, file.fd, 0, F2FS_IOC_DEDUP_GET_FILE_INFO, nullptr, 0, nullptr, 8},
                  get, answer, size_changed) == 0);
    dedup_file_info info = {};
    REQUIRE(answer.size() == sizeof info);
    memcpy(&info, answer.data(), sizeof info);
    REQUIRE(info.is_layered == (file.is_layered ? 1 : 0) && info.reserved == 0);
}

// A request that mostly could succeed, with at most one thing about it out of the ordinary.
void serveOne(World& world, FuzzedDataProvider& input) {
    constexpr uint32_t USUAL[][3] = {
        {F2FS_IOC_DEDUP_REVOKE, 0, 0},
        {F2FS_IOC_DEDUP_GET_FILE_INFO, 0, 0},
        {F2FS_IOC_MODIFY_CHECK, MODIFY_CHECK_FLAG, MODIFY_CHECK_SET},
        {F2FS_IOC_MODIFY_CHECK, 0, MODIFY_CHECK_GET},
        {F2FS_IOC_CLONE_FILE, NAMES_A_FILE, CLONE_FLAGS},
        {F2FS_IOC_SNAPSHOT_CREATE, NAMES_A_FILE, 0},
        {F2FS_IOC_SNAPSHOT_PREPARE, NAMES_A_FILE, 0},
    };
    const uint32_t* usual = USUAL[input.ConsumeIntegralInRange<size_t>(0, std::size(USUAL) - 1)];
    File& file = world.files[input.ConsumeIntegralInRange<size_t>(0, world.files.size() - 1)];
    const int named = input.PickValueInArray(world.descriptors);
    uint32_t number = usual[0];
    // As long as the longest record that is served below.
    uint32_t words[4] = {usual[1] == NAMES_A_FILE ? static_cast<uint32_t>(named) : usual[1],
                         usual[2]};
    emulator::Request request = {*file.inode, file.fd, getpid(), 0, nullptr, 8, nullptr, 8};
    switch (input.ConsumeIntegralInRange(0, 15)) {
        case 0:
            number = input.ConsumeIntegral<uint32_t>();
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
            request.pid = input.ConsumeIntegral<int8_t>();
            break;
        case 6:
            request.fd = file.name == "a"   ? world.descriptors[READ_ONLY_A]
                         : file.name == "b" ? world.descriptors[WRITE_ONLY_B]
                                            : file.fd;
            break;
        default:
            break;
    }

    request.number = number;
    const bool known = std::any_of(std::begin(USUAL), std::end(USUAL),
                                   [&](const auto& row) { return row[0] == number; });
    const size_t record = _IOC_SIZE(number);
    const bool is_whole = ((_IOC_DIR(number) & _IOC_WRITE) == 0 || request.in_size >= record) &&
                          ((_IOC_DIR(number) & _IOC_READ) == 0 || request.out_size >= record);
    const size_t size_before = file.content.size();
    std::vector<uint8_t> answer;
    bool size_changed = false;
    const int error = serve(world, request, words, answer, size_changed);
    if (!known || file.name == "folder") {
        REQUIRE(error == ENOTTY);
    } else if (!is_whole) {
        REQUIRE(error == EINVAL);
    } else {
        REQUIRE((error == 0) == model(world, file, request, words));
    }
    REQUIRE(size_changed || file.content.size() == size_before);
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
