// SPDX-License-Identifier: Apache-2.0
// What the library shows to its users; everything else is built hidden.
#pragma once

#define F2FS_SNAPSHOT_EXPORT __attribute__((visibility("default")))
