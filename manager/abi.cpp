// SPDX-License-Identifier: Apache-2.0
#include "manager/abi.h"

#include <algorithm>
#include <memory>

#include "manager/check.h"
#include "manager/create.h"
#include "manager/info.h"
#include "manager/verify.h"

using manager::Failure;
using manager::guarded;
using manager::Info;
using manager::Monitor;
using manager::optionsOf;
using manager::requireArgument;

namespace manager {

namespace {

void fill(f2fs_snapshot_error* error, const Failure& failure) noexcept {
    if (error == nullptr || error->size < sizeof *error) {
        return;
    }
    error->code = failure.code;
    error->os_error = failure.os_error;
    snprintf(error->path, sizeof error->path, "%s", failure.path.c_str());
    snprintf(error->message, sizeof error->message, "%s", failure.message.c_str());
}

int32_t reportPlain(f2fs_snapshot_error* error, f2fs_snapshot_code code,
                    const char* message) noexcept {
    if (error != nullptr && error->size >= sizeof *error) {
        error->code = code;
        error->os_error = 0;
        error->path[0] = '\0';
        snprintf(error->message, sizeof error->message, "%s", message);
    }
    return code;
}

}  // namespace

int32_t reportFailure(f2fs_snapshot_error* error) noexcept {
    try {
        throw;
    } catch (const Failure& failure) {
        fill(error, failure);
        return failure.code;
    } catch (const std::bad_alloc&) {
        return reportPlain(error, F2FS_SNAPSHOT_ERROR_MEMORY, "memory exhausted");
    } catch (const std::exception& exception) {
        return reportPlain(error, F2FS_SNAPSHOT_ERROR_INTERNAL, exception.what());
    } catch (...) {
        return reportPlain(error, F2FS_SNAPSHOT_ERROR_INTERNAL, "unknown exception");
    }
}

void requireArgument(const void* pointer, const char* what) {
    if (pointer == nullptr) {
        throw Failure(F2FS_SNAPSHOT_ERROR_ARGUMENT, "", std::string(what) + " is NULL");
    }
}

namespace {

std::vector<std::string> pathsOf(const char* const* paths, size_t count) {
    std::vector<std::string> list;
    for (size_t i = 0; i < count; ++i) {
        requireArgument(paths == nullptr ? nullptr : paths[i], "a path");
        list.emplace_back(paths[i]);
    }
    return list;
}

CreateRequest requestOf(const char* const* sources, size_t count,
                        const f2fs_snapshot_create_options& options) {
    constexpr uint32_t ATTEMPTS = 3;
    constexpr uint32_t TIME_LIMIT = 3600;
    CreateRequest request;
    request.sources = pathsOf(sources, count);
    request.name = options.name != nullptr ? options.name : nameOfNow();
    request.strict = options.strict != 0;
    request.digests = options.digests != 0;
    request.is_temporary = options.temporary != 0;
    request.attempts = options.attempts != 0 ? options.attempts : ATTEMPTS;
    request.time_limit =
        std::chrono::seconds(options.time_limit != 0 ? options.time_limit : TIME_LIMIT);
    request.helper = options.helper != nullptr ? options.helper : "";
    return request;
}

Info infoOf(const Store& store, const std::string& name) {
    return readInfo(store.open(name).get(), store.pathOf(name), name);
}

struct InfoDeleter {
    void operator()(const f2fs_snapshot_info* info) const {
        freeInfo(const_cast<f2fs_snapshot_info*>(info));
    }
};

// A list that owns what it points to.
struct OwnedList : f2fs_snapshot_list {
    std::vector<std::string> names;
    std::vector<std::unique_ptr<const f2fs_snapshot_info, InfoDeleter>> infos;
    std::vector<f2fs_snapshot_list_entry> list;
};

void addToList(const Store& store, const std::string& name, OwnedList& owned) {
    f2fs_snapshot_list_entry entry = {name.c_str(), nullptr, F2FS_SNAPSHOT_ERROR_INIT};
    const int32_t code = guarded(&entry.error, [&] {
        owned.infos.emplace_back(newInfo(infoOf(store, name)));
        entry.info = owned.infos.back().get();
    });
    if (code == F2FS_SNAPSHOT_ERROR_MEMORY) {
        throw std::bad_alloc();
    }
    if (code != F2FS_SNAPSHOT_ERROR_NOT_FOUND) {  // destroyed meanwhile
        owned.list.push_back(entry);
    }
}

f2fs_snapshot_list* newList(const Store& store) {
    auto owned = std::make_unique<OwnedList>();
    owned->names = store.names();
    for (const std::string& name : owned->names) {
        addToList(store, name, *owned);
    }
    std::stable_sort(owned->list.begin(), owned->list.end(), [](const auto& one, const auto& two) {
        return one.info != nullptr &&
               (two.info == nullptr || one.info->created < two.info->created);
    });
    owned->size = sizeof(f2fs_snapshot_list);
    owned->entries = owned->list.data();
    owned->entry_count = owned->list.size();
    owned->entry_size = sizeof(f2fs_snapshot_list_entry);
    return owned.release();
}

}  // namespace

}  // namespace manager

const char* f2fs_snapshot_manager_version() {
    return F2FS_SNAPSHOT_MANAGER_VERSION;
}

void f2fs_snapshot_report_free(f2fs_snapshot_report* report) {
    manager::freeReport(report);
}

void f2fs_snapshot_info_free(f2fs_snapshot_info* info) {
    manager::freeInfo(info);
}

void f2fs_snapshot_list_free(f2fs_snapshot_list* list) {
    delete static_cast<manager::OwnedList*>(list);
}

int32_t f2fs_snapshot_store_open(const char* path, uint32_t flags, f2fs_snapshot_store** store,
                                 f2fs_snapshot_error* error) {
    return guarded(error, [&] {
        requireArgument(path, "path");
        requireArgument(store, "store");
        if ((flags & ~F2FS_SNAPSHOT_STORE_CREATE) != 0) {
            throw Failure(F2FS_SNAPSHOT_ERROR_ARGUMENT, "", "unknown flags");
        }
        *store = new f2fs_snapshot_store{{path, (flags & F2FS_SNAPSHOT_STORE_CREATE) != 0}};
    });
}

void f2fs_snapshot_store_close(f2fs_snapshot_store* store) {
    delete store;
}

const char* f2fs_snapshot_store_path(const f2fs_snapshot_store* store) {
    return store->store.path().c_str();
}

int32_t f2fs_snapshot_check(f2fs_snapshot_store* store, const char* const* sources,
                            size_t source_count, const f2fs_snapshot_check_options* options,
                            f2fs_snapshot_report** report, f2fs_snapshot_error* error) {
    return guarded(error, [&] {
        requireArgument(store, "store");
        requireArgument(report, "report");
        const f2fs_snapshot_check_options known = optionsOf(options);
        Monitor monitor(known.callbacks);
        const std::string name = known.name != nullptr ? known.name : manager::nameOfNow();
        store->store.requireFree(name);
        *report = newReport(manager::checkSources(
            store->store,
            manager::openSources(store->store, manager::pathsOf(sources, source_count)), name,
            monitor));
    });
}

int32_t f2fs_snapshot_create(f2fs_snapshot_store* store, const char* const* sources,
                             size_t source_count, const f2fs_snapshot_create_options* options,
                             f2fs_snapshot_info** info, f2fs_snapshot_error* error) {
    return guarded(error, [&] {
        requireArgument(store, "store");
        const f2fs_snapshot_create_options known = optionsOf(options);
        Monitor monitor(known.callbacks);
        Info made = manager::createSnapshot(
            store->store, manager::requestOf(sources, source_count, known), monitor);
        if (info != nullptr) {
            *info = newInfo(std::move(made));
        }
    });
}

int32_t f2fs_snapshot_list_all(f2fs_snapshot_store* store, f2fs_snapshot_list** snapshots,
                               f2fs_snapshot_error* error) {
    return guarded(error, [&] {
        requireArgument(store, "store");
        requireArgument(snapshots, "snapshots");
        *snapshots = manager::newList(store->store);
    });
}

int32_t f2fs_snapshot_show(f2fs_snapshot_store* store, const char* name, f2fs_snapshot_info** info,
                           f2fs_snapshot_error* error) {
    return guarded(error, [&] {
        requireArgument(store, "store");
        requireArgument(name, "name");
        requireArgument(info, "info");
        *info = newInfo(manager::infoOf(store->store, name));
    });
}

int32_t f2fs_snapshot_disk_usage(f2fs_snapshot_store* store, const char* name, uint64_t* bytes,
                                 f2fs_snapshot_error* error) {
    return guarded(error, [&] {
        requireArgument(store, "store");
        requireArgument(name, "name");
        requireArgument(bytes, "bytes");
        *bytes = manager::diskUsage(store->store, name);
    });
}

int32_t f2fs_snapshot_hold_take(f2fs_snapshot_store* store, const char* name,
                                f2fs_snapshot_hold** hold, f2fs_snapshot_error* error) {
    return guarded(error, [&] {
        requireArgument(store, "store");
        requireArgument(name, "name");
        requireArgument(hold, "hold");
        *hold = new f2fs_snapshot_hold{store->store.openShared(name)};
    });
}

void f2fs_snapshot_hold_release(f2fs_snapshot_hold* hold) {
    delete hold;
}

int32_t f2fs_snapshot_verify(f2fs_snapshot_store* store, const char* name,
                             const f2fs_snapshot_verify_options* options,
                             f2fs_snapshot_report** report, f2fs_snapshot_error* error) {
    return guarded(error, [&] {
        requireArgument(store, "store");
        requireArgument(name, "name");
        requireArgument(report, "report");
        Monitor monitor(optionsOf(options).callbacks);
        *report = newReport(manager::verifySnapshot(store->store, name, monitor));
    });
}

int32_t f2fs_snapshot_destroy(f2fs_snapshot_store* store, const char* name,
                              const f2fs_snapshot_destroy_options* options,
                              f2fs_snapshot_error* error) {
    return guarded(error, [&] {
        requireArgument(store, "store");
        requireArgument(name, "name");
        Monitor monitor(optionsOf(options).callbacks);
        manager::checkName(name);
        const manager::UniqueFd lock = store->store.lock(monitor);
        store->store.destroy(name, monitor);
    });
}
