/* SPDX-License-Identifier: Apache-2.0 */
/* A client in C, compiled as C11. */
#ifdef __cplusplus
extern "C"
#endif
    int
    snapshotFromC(const char* store_path, const char* source, const char* name);
