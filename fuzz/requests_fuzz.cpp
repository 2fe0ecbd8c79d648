// SPDX-License-Identifier: Apache-2.0
// The emulator's request handler. A refused request changes nothing, a served one only its own file
// and only in its own way, no file gets data that its caller may not read, and the disk always
// holds the state in memory. A lost descriptor shows at the limit of the run.
#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <iterator>
#include <tuple>
#include <vector>

#include "emulator/requests.h"
#include "fuzz/fuzz.h"
#include "snapshot/f2fs_ioctl.h"

namespace {

using emulator::Inode;
using emulator::UniqueFd;

// Three files, a directory, and a secret that no descriptor can read. The process is its own
// caller, and the backing directory its own mount.
constexpr const char* NAMES[] = {"a", "b", "c", "directory", "secret"};
constexpr size_t FILES = 3;

struct World {
    World() {
        REQUIRE(openVolume(scratch.path.c_str(), volume) == 0);
        fs::create_directory(scratch.path / "directory");
        for (const char* const name : NAMES) {
            const std::string path = scratch.path / name;
            const size_t i = inodes.size();
            const int access = i < FILES ? O_RDWR : i == FILES ? O_RDONLY : O_WRONLY;
            fds.emplace_back(open(path.c_str(), access | (i == FILES ? 0 : O_CREAT), 0600));
            fds.emplace_back(open(path.c_str(), i <= FILES ? O_RDONLY : O_PATH));
            const std::string content(i + 1, *name);
            REQUIRE(i == FILES || write(fds[2 * i].get(), content.data(), i + 1) > 0);
            struct stat attributes = {};
            inodes.push_back(nullptr);
            REQUIRE(findEntry(volume, *volume.root, name, inodes[i], attributes) == 0);
            volume.mount_device = attributes.st_dev;
        }
        fds.emplace_back(memfd_create("elsewhere", 0));
        fds.emplace_back();
    }

    Scratch scratch;
    emulator::Volume volume;
    std::vector<Inode*> inodes;
    std::vector<UniqueFd> fds;  // two of each name, and two more
};

// The content, the flag word and whether the file is layered, as they are on the disk.
using View = std::tuple<std::string, uint32_t, bool>;

std::vector<View> viewOf(const World& world) {
    std::vector<View> views;
    for (size_t i = 0; i < FILES; ++i) {
        char content[16] = {};
        const int fd = world.fds[2 * i].get();
        Inode fresh;
        REQUIRE(pread(fd, content, sizeof content, 0) >= 0 && loadState(fresh, fd) == 0);
        const auto& known = world.inodes[i]->state;
        REQUIRE(!known ||
                (known->flag == fresh.state->flag && known->is_layered == fresh.state->is_layered));
        views.emplace_back(content, fresh.state->flag, fresh.state->is_layered != 0);
    }
    return views;
}

using Words = uint32_t[4];  // more than any record has
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

// Mostly leaves a request as it is; else puts one thing about it out of the ordinary.
void disturb(emulator::Request& request, Words& words, int other_fd, FuzzedDataProvider& input) {
    uint32_t* const numbers[] = {&request.number, &words[0], &words[1]};
    const auto kind = input.ConsumeIntegralInRange<size_t>(0, 15);
    if (kind < 3) {
        *numbers[kind] = input.ConsumeIntegral<uint32_t>();
    } else if (kind < 5) {
        (kind == 3 ? request.in_size : request.out_size) =
            input.ConsumeIntegralInRange<size_t>(0, sizeof words);
    } else if (kind == 5) {
        request.pid = input.ConsumeIntegralInRange(-1, 100);
    } else if (kind == 6) {
        request.fd = other_fd;
    }
}

// Serves a request on buffers of exactly the sizes given. Returns whether it succeeds.
bool serve(const World& world, emulator::Request request, const Words& words) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(words);
    const std::vector<uint8_t> in(bytes, bytes + request.in_size);
    std::vector<uint8_t> out(request.out_size);
    request.in = in.data();
    request.out = out.data();
    size_t answered = 0;
    bool size_changed = false;
    const int error = serveRequest(world.volume, request, answered, size_changed);
    REQUIRE(error >= 0 && answered <= (error == 0 ? request.out_size : 0));
    return error == 0;
}

// What a served request may do to its file.
void checkServed(uint32_t number, const Words& words, const std::vector<View>& all,
                 const View& before, const View& after) {
    const auto& [content, flag, is_layered] = after;
    const auto is_copy = [&](const View& view) { return std::get<0>(view) == std::get<0>(after); };
    if (number == F2FS_IOC_CLONE_FILE || number == F2FS_IOC_SNAPSHOT_CREATE) {
        REQUIRE(std::any_of(all.begin(), all.end(), is_copy));
        REQUIRE((flag & MODIFY_CHECK_UNCHANGED) == 0);
    } else {
        const bool sets = number == F2FS_IOC_MODIFY_CHECK && words[1] == MODIFY_CHECK_SET;
        REQUIRE(content == std::get<0>(before) && flag == (sets ? words[0] : std::get<1>(before)));
    }
    REQUIRE(is_layered == std::get<2>(before) ||
            number == (is_layered ? F2FS_IOC_SNAPSHOT_PREPARE : F2FS_IOC_DEDUP_REVOKE));
}

void serveOne(World& world, FuzzedDataProvider& input) {
    const uint32_t* usual = USUAL[input.ConsumeIntegralInRange<size_t>(0, std::size(USUAL) - 1)];
    const auto own = input.ConsumeIntegralInRange<size_t>(0, FILES);
    const auto& named = world.fds[input.ConsumeIntegralInRange<size_t>(0, world.fds.size() - 1)];
    Words words = {usual[1] == NAMES_A_FILE ? static_cast<uint32_t>(named.get()) : usual[1],
                   usual[2]};
    emulator::Request request = {
        *world.inodes[own], world.fds[2 * own].get(), getpid(), usual[0], nullptr, 8, nullptr, 8};
    disturb(request, words, world.fds[2 * own + 1].get(), input);
    const std::vector<View> before = viewOf(world);
    const bool is_served = serve(world, request, words);
    const std::vector<View> after = viewOf(world);
    REQUIRE(!is_served || own < FILES);
    for (size_t i = 0; i < FILES; ++i) {
        if (is_served && i == own) {
            checkServed(request.number, words, before, before[i], after[i]);
        } else {
            REQUIRE(before[i] == after[i]);
        }
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    World world;
    while (input.remaining_bytes() > 0) {
        serveOne(world, input);
    }
    return 0;
}
