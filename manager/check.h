// SPDX-License-Identifier: Apache-2.0
// Finds what would make create fail or would not be covered. Changes nothing.
#pragma once

#include "manager/sources.h"

namespace manager {

// name  of the snapshot that is to be made
Report checkSources(const Store& store, const std::vector<Source>& sources, const std::string& name,
                    Monitor& monitor);

}  // namespace manager
