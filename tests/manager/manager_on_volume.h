// SPDX-License-Identifier: Apache-2.0
// Calls of the manager's C interface on a mounted volume.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "manager/f2fs_snapshot_manager.h"
#include "tests/emulator_mount.h"
#include "tests/helpers.h"
#include "tests/manager/random_tree.h"

// The result of a call, with the object of its out parameter.
template <typename Value>
struct Result {
    int32_t code = -1;
    f2fs_snapshot_error error = F2FS_SNAPSHOT_ERROR_INIT;
    std::shared_ptr<Value> value;
};

// "KIND PATH" of each finding, with paths below `top` relative to it.
template <typename Value>
std::vector<std::string> findingsOf(const Value& value, const std::string& top) {
    std::vector<std::string> lines;
    for (size_t i = 0; i < value.finding_count; ++i) {
        const std::string path = value.findings[i].path;
        lines.push_back(std::to_string(value.findings[i].kind) + " " +
                        (path == top                     ? "."
                         : path.rfind(top + "/", 0) == 0 ? path.substr(top.size() + 1)
                                                         : path));
        EXPECT_NE(std::string(value.findings[i].message), "");
    }
    return lines;
}

// A test with an empty source and an empty store.
class ManagerOnVolume : public VolumeTest {
  protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (!IsSkipped()) {
            openStore();
        }
    }
    void TearDown() override {
        f2fs_snapshot_store_close(store);
        VolumeTest::TearDown();
    }
    void openStore() {
        f2fs_snapshot_error error = F2FS_SNAPSHOT_ERROR_INIT;
        ASSERT_EQ(f2fs_snapshot_store_open(at("store").c_str(), F2FS_SNAPSHOT_STORE_CREATE, &store,
                                           &error),
                  F2FS_SNAPSHOT_OK)
            << error.message;
    }

    Result<f2fs_snapshot_info> create(const std::string& name, f2fs_snapshot_create_options options,
                                      const std::vector<std::string>& sources) const {
        Result<f2fs_snapshot_info> result;
        options.name = name.c_str();
        std::vector<const char*> paths;
        paths.reserve(sources.size());
        for (const std::string& path : sources) {
            paths.push_back(path.c_str());
        }
        f2fs_snapshot_info* info = nullptr;
        result.code =
            f2fs_snapshot_create(store, paths.data(), paths.size(), &options, &info, &result.error);
        result.value.reset(info, f2fs_snapshot_info_free);
        EXPECT_EQ(result.code == F2FS_SNAPSHOT_OK, info != nullptr);
        EXPECT_EQ(result.code, result.error.code);
        EXPECT_EQ(result.code == F2FS_SNAPSHOT_OK, *result.error.message == '\0');
        return result;
    }
    Result<f2fs_snapshot_info> create(const std::string& name, uint32_t attempts = 1) const {
        f2fs_snapshot_create_options options = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
        options.attempts = attempts;
        return create(name, options, {source});
    }
    Result<f2fs_snapshot_report> verify(const std::string& name) const {
        Result<f2fs_snapshot_report> result;
        f2fs_snapshot_report* report = nullptr;
        result.code = f2fs_snapshot_verify(store, name.c_str(), nullptr, &report, &result.error);
        result.value.reset(report, f2fs_snapshot_report_free);
        return result;
    }
    Result<f2fs_snapshot_report> check(const std::vector<std::string>& sources) const {
        Result<f2fs_snapshot_report> result;
        std::vector<const char*> paths;
        paths.reserve(sources.size());
        for (const std::string& path : sources) {
            paths.push_back(path.c_str());
        }
        f2fs_snapshot_report* report = nullptr;
        result.code =
            f2fs_snapshot_check(store, paths.data(), paths.size(), nullptr, &report, &result.error);
        result.value.reset(report, f2fs_snapshot_report_free);
        return result;
    }
    int32_t destroy(const std::string& name) const {
        return f2fs_snapshot_destroy(store, name.c_str(), nullptr, nullptr);
    }
    // "name", or "name CODE" of one that is damaged.
    std::vector<std::string> list() const {
        f2fs_snapshot_list* found = nullptr;
        EXPECT_EQ(f2fs_snapshot_list_all(store, &found, nullptr), F2FS_SNAPSHOT_OK);
        std::vector<std::string> lines;
        for (size_t i = 0; i < found->entry_count; ++i) {
            const f2fs_snapshot_list_entry& entry = found->entries[i];
            lines.push_back(entry.name +
                            (entry.info != nullptr ? "" : " " + std::to_string(entry.error.code)));
        }
        f2fs_snapshot_list_free(found);
        return lines;
    }
    void expectIntact(const std::string& name) const {
        const auto result = verify(name);
        ASSERT_EQ(result.code, F2FS_SNAPSHOT_OK) << result.error.message;
        EXPECT_EQ(findingsOf(*result.value, ""), std::vector<std::string>());
    }
    // What is in the store besides snapshots.
    std::string leftovers() const {
        return shell("cd " + at("store") + " && find . -mindepth 1 -maxdepth 1 -name '.*'");
    }
    std::string mirror(const std::string& name) const {
        return at("store") + "/" + name + "/snapshot" + source;
    }

    f2fs_snapshot_store* store = nullptr;
};

// Preloads hold.cpp into the helper, to act at the nth call.
inline void preloadHold(int nth) {
    setenv("LD_PRELOAD", F2FS_SNAPSHOT_HOLD_LIBRARY, 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
    setenv("F2FS_SNAPSHOT_TEST_NTH", std::to_string(nth).c_str(), 1);
}

// Makes the next creates hold the library before its nth call of one kind on one path. `act` runs
// there the first time.
class HeldLibrary {
  public:
    HeldLibrary(const fs::path& directory, const std::string& call, int nth,
                std::function<void()> act)
        : pipes_(directory), act_(std::move(act)) {
        for (const char* name : {"held", "go"}) {
            EXPECT_EQ(mkfifo((pipes_ / name).c_str(), 0600), 0);
        }
        preloadHold(nth);
        setenv("F2FS_SNAPSHOT_TEST_HOLD", call.c_str(), 1);
        setenv("F2FS_SNAPSHOT_TEST_PIPES", pipes_.c_str(), 1);
        // Opened for reading and writing, so that neither side waits for the other to open.
        held_ = open((pipes_ / "held").c_str(), O_RDWR | O_CLOEXEC);
        go_ = open((pipes_ / "go").c_str(), O_RDWR | O_CLOEXEC);
        thread_ = std::thread([this] { serve(); });
    }
    ~HeldLibrary() {
        const char end = 1;
        EXPECT_EQ(::write(held_, &end, 1), 1);
        thread_.join();
        close(held_);
        close(go_);
        for (const char* name : {"LD_PRELOAD", "F2FS_SNAPSHOT_TEST_HOLD", "F2FS_SNAPSHOT_TEST_NTH",
                                 "F2FS_SNAPSHOT_TEST_PIPES"}) {
            unsetenv(name);
        }
        fs::remove(pipes_ / "held");
        fs::remove(pipes_ / "go");
    }
    HeldLibrary(const HeldLibrary&) = delete;
    HeldLibrary& operator=(const HeldLibrary&) = delete;

    std::atomic<bool> has_acted = false;

  private:
    void serve() {
        for (char byte = 0; ::read(held_, &byte, 1) == 1 && byte == 0;) {
            if (!has_acted) {
                has_acted = true;
                act_();
            }
            EXPECT_EQ(::write(go_, &byte, 1), 1);
        }
    }

    fs::path pipes_;
    std::function<void()> act_;
    int held_ = -1;
    int go_ = -1;
    std::thread thread_;
};
