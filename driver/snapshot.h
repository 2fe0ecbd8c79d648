/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Snapshot requests for F2FS: their numbers and records, and what the rest of
 * F2FS calls.
 */
#ifndef _F2FS_SNAPSHOT_H
#define _F2FS_SNAPSHOT_H

#include <linux/ioctl.h>
#include <linux/types.h>

struct file;
struct inode;
struct f2fs_sb_info;

struct f2fs_dedup_file_info {
	__s16 is_deduped;
	__s16 is_layered;
	__u32 reserved;
};

struct f2fs_clone_file_info {
	__s32 source_fd;
	__u32 flags;
};

struct f2fs_modify_check_info {
	__u32 flag;
	__u32 mode;
};

struct f2fs_snapshot_create_info {
	__s32 source_fd;
	__u32 flags;
};

#define F2FS_IOC_DEDUP_REVOKE		_IOW(0xf5, 0x66, __u32)
#define F2FS_IOC_DEDUP_GET_FILE_INFO	\
	_IOR(0xf5, 0x67, struct f2fs_dedup_file_info)
#define F2FS_IOC_CLONE_FILE		\
	_IOW(0xf5, 0x69, struct f2fs_clone_file_info)
#define F2FS_IOC_MODIFY_CHECK		\
	_IOWR(0xf5, 0x6a, struct f2fs_modify_check_info)
#define F2FS_IOC_SNAPSHOT_CREATE	\
	_IOW(0xf5, 0x6c, struct f2fs_snapshot_create_info)
#define F2FS_IOC_SNAPSHOT_PREPARE	_IOW(0xf5, 0x6d, __u32)

#define F2FS_CLONE_FLAGS		0x160
#define F2FS_MODIFY_CHECK_SET		4
#define F2FS_MODIFY_CHECK_GET		8
#define F2FS_MODIFY_CHECK_UNCHANGED	0x2	/* the mark, in ->flag */

/*
 * Clears the mark of @inode. Call it before the data or size changes, under
 * the lock of the change: the inode lock, or for a store through a mapping
 * the one that f2fs_snapshot_begin_store() takes.
 */
void f2fs_snapshot_change(struct inode *inode);

/*
 * Call it when blocks of @inode have been exchanged below its page cache. It
 * drops the cached pages, which would show the old data and change later
 * without a call of f2fs_snapshot_change(). Returns 0 or a negative errno.
 */
int f2fs_snapshot_exchanged(struct inode *inode, loff_t pos, loff_t len);

/* Around F2FS's own page_mkwrite: clears the mark, and keeps copies out. */
void f2fs_snapshot_begin_store(struct inode *inode);
void f2fs_snapshot_end_store(struct inode *inode);

/* Frees the state of a file that has lost its last link and its last user. */
void f2fs_snapshot_forget(struct inode *inode);

/* Set up and free the states of a super block. */
void f2fs_snapshot_mount(struct f2fs_sb_info *sbi);
void f2fs_snapshot_unmount(struct f2fs_sb_info *sbi);

/*
 * Serves the six requests on regular files, for 64-bit and 32-bit callers.
 * -ENOTTY: another request, or another kind of file.
 */
long f2fs_snapshot_ioctl(struct file *filp, unsigned int cmd,
			 unsigned long arg);

int __init f2fs_create_snapshot_cache(void);
void f2fs_destroy_snapshot_cache(void);

#endif /* _F2FS_SNAPSHOT_H */
