// SPDX-License-Identifier: Apache-2.0
// The verbs. Each returns the exit status, or throws CallFailed.
#pragma once

#include "manager/ctl/options.h"

namespace ctl {

int check(const Options& options);
int create(const Options& options);
int run(const Options& options);
int list(const Options& options);
int show(const Options& options);
int verify(const Options& options);
int restore(const Options& options);
int destroy(const Options& options);
int prune(const Options& options);

}  // namespace ctl
