// SPDX-License-Identifier: Apache-2.0
// Empty on purpose: the executable's main is the one that the library exports.
