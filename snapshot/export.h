// SPDX-License-Identifier: Apache-2.0
// Marks what the library exports; everything else is built hidden. exports.map lists the names.
#pragma once

#define F2FS_SNAPSHOT_EXPORT __attribute__((visibility("default")))
