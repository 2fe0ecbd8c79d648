// SPDX-License-Identifier: Apache-2.0
// The six requests, as the library sends them. Each is a step of the check.
#pragma once

#include "driver_check/files.h"
#include "snapshot/f2fs_ioctl.h"

namespace driver_check {

// Each returns 0, or the errno value of the refusal.
int trySet(const File& file);
int tryGet(const File& file, uint32_t& flag);
int tryInfo(const File& file, dedup_file_info& info);
int tryClone(const File& clone, int32_t source_fd, const char* source_name);
int tryPrepare(const File& source, int32_t clone_fd, const char* clone_name);
int tryCreate(const File& snapshot, int32_t source_fd, const char* source_name);
int tryRevoke(const File& file);

// Each fails the check unless the request succeeds.
void setMark(const File& file);
uint32_t flagOf(const File& file);
bool isMarked(const File& file);
bool isLayered(const File& file);
void cloneFrom(const File& clone, const File& source);
void prepare(const File& source, const File& clone);
void createFrom(const File& snapshot, const File& source);

// All that the library sends to prepare a file.
void layer(const File& source);
// A new file, preallocated to the source's size and made its snapshot, as the library does it.
File snapshotOf(const File& source, const char* name = "snapshot");

// Fail the check unless the mark is (not) there. `after` names the last step, for the evidence.
void expectMark(const File& file, const std::string& after);
void expectNoMark(const File& file, const std::string& after);
void expectRefused(int error, const std::string& request);

}  // namespace driver_check
