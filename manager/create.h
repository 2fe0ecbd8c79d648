// SPDX-License-Identifier: Apache-2.0
// Makes a generation: calls the library, and proves that no name changed meanwhile.
#pragma once

#include <string>
#include <vector>

#include "manager/helper.h"
#include "manager/results.h"
#include "manager/store.h"

namespace manager {

struct CreateRequest {
    std::vector<std::string> sources;
    std::string name;
    bool strict = false;
    bool digests = false;
    bool is_temporary = false;
    uint32_t attempts = 0;
    std::chrono::seconds time_limit;
    std::string helper;  // empty: as installed
};

// A name for a snapshot made now: the time in UTC.
std::string nameOfNow();

Info createSnapshot(const Store& store, const CreateRequest& request, Monitor& monitor);

}  // namespace manager
