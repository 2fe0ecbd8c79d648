// SPDX-License-Identifier: Apache-2.0
// Settings and counters of the stubs that replace the driver and the log.
#pragma once

extern bool stub_layered;    // files are layered already, so that prepare has nothing to do
extern bool stub_log_on;     // lines are passed on to the real log library
extern long stub_log_lines;  // lines so far
