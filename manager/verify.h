// SPDX-License-Identifier: Apache-2.0
// Compares a generation with its manifest.
#pragma once

#include "manager/results.h"
#include "manager/store.h"

namespace manager {

Report verifySnapshot(const Store& store, const std::string& name, Monitor& monitor);

// Bytes on the disk of a generation's snapshot.
uint64_t diskUsage(const Store& store, const std::string& name);

}  // namespace manager
