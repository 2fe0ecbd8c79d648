// SPDX-License-Identifier: Apache-2.0
// What the stand-ins of the driver and of the log do, and what they saw.
#pragma once

extern bool stub_layered;    // files are layered already, so that prepare has nothing to do
extern bool stub_log_on;     // lines go on to the real log library
extern long stub_log_lines;  // lines so far
