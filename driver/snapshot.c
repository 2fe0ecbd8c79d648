// SPDX-License-Identifier: GPL-2.0-only
/*
 * Snapshot requests for F2FS: a reference for driver authors.
 *
 * Snapshots and clones are copies through the page cache. The format of the
 * volume stays the same: the state of a file (its mark and two flags) is kept
 * in memory from the first request until the file is deleted or the volume
 * unmounted.
 *
 * Locks, in this order: inode lock, mmap lock, f2fs_inode_info.i_stores.
 *
 * - A write or truncation changes a file under its inode lock.
 * - A store through a shared mapping cannot take the inode lock. It begins
 *   with a page fault that holds i_stores for reading. The page is then
 *   writable until its next write-back, after which a store faults again.
 * - A set places the mark with both locks held for writing.
 * - A copy holds both for writing until it is done, and writes the source
 *   back first. Then no page of it is writable, and none can become so.
 *
 * The invalidate lock of the mapping cannot stand in for i_stores: readahead
 * takes it for reading, so that a copy that held it would wait for itself.
 */
#include <linux/f2fs_fs.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/fsnotify.h>
#include <linux/module.h>
#include <linux/mount.h>
#include <linux/sched/signal.h>
#include <linux/uio.h>
#include <linux/xarray.h>

#include "f2fs.h"
#include "node.h"
#include "snapshot.h"

#define SNAPSHOT_CHUNK_PAGES	16

struct f2fs_snapshot_state {
	u32 generation;		/* of the inode: its number may be reused */
	u32 flag;		/* modify-check bits, the mark among them */
	bool is_deduped;
	bool is_layered;
	nid_t cloned_from;	/* 0: not a clone */
	u32 cloned_generation;
};

static struct kmem_cache *snapshot_state_slab;

#ifdef F2FS_SNAPSHOT_DEFECTS
/* Necessary steps that are left out on demand, to test the tests. */
enum {
	DEFECT_STORE = 1,
	DEFECT_COPY_WRITE_BACK,
	DEFECT_COPY_LOCK,
	DEFECT_SET_WRITE_BACK,
};

static unsigned int snapshot_defect;
module_param(snapshot_defect, uint, 0600);
MODULE_PARM_DESC(snapshot_defect,
		 "1: a store through a mapping keeps the mark; 2: copies do not write back; 3: copies do not keep stores out; 4: sets do not write back");
#define HAS_DEFECT(defect)	(READ_ONCE(snapshot_defect) == (defect))
#else
#define HAS_DEFECT(defect)	false
#endif

static struct f2fs_snapshot_state *state_of(struct inode *inode)
{
	struct f2fs_snapshot_state *state;

	state = xa_load(&F2FS_I_SB(inode)->snapshot_states, inode->i_ino);
	if (!state || state->generation != inode->i_generation)
		return NULL;
	return state;
}

/* The caller holds the inode lock: no other task adds a state for @inode. */
static struct f2fs_snapshot_state *get_state(struct inode *inode)
{
	struct f2fs_snapshot_state *state = state_of(inode);
	struct f2fs_snapshot_state *old;

	if (state)
		return state;
	state = kmem_cache_zalloc(snapshot_state_slab, GFP_NOFS);
	if (!state)
		return ERR_PTR(-ENOMEM);
	state->generation = inode->i_generation;
	old = xa_store(&F2FS_I_SB(inode)->snapshot_states, inode->i_ino, state,
		       GFP_NOFS);
	if (xa_is_err(old)) {
		kmem_cache_free(snapshot_state_slab, state);
		return ERR_PTR(xa_err(old));
	}
	if (old)
		kmem_cache_free(snapshot_state_slab, old);
	return state;
}

void f2fs_snapshot_change(struct inode *inode)
{
	struct f2fs_snapshot_state *state = state_of(inode);

	if (!state || !(state->flag & F2FS_MODIFY_CHECK_UNCHANGED))
		return;
	/* Faults may do this side by side; all of them store the same value. */
	WRITE_ONCE(state->flag, state->flag & ~F2FS_MODIFY_CHECK_UNCHANGED);
	/* Readers of the data that are written next find the mark cleared. */
	smp_mb();
}

int f2fs_snapshot_exchanged(struct inode *inode, loff_t pos, loff_t len)
{
	int err;

	err = filemap_write_and_wait_range(inode->i_mapping, pos, pos + len - 1);
	if (err)
		return err;
	return invalidate_inode_pages2_range(inode->i_mapping,
					     pos >> PAGE_SHIFT,
					     (pos + len - 1) >> PAGE_SHIFT);
}

void f2fs_snapshot_begin_store(struct inode *inode)
{
	down_read(&F2FS_I(inode)->i_stores);
	if (!HAS_DEFECT(DEFECT_STORE))
		f2fs_snapshot_change(inode);
}

void f2fs_snapshot_end_store(struct inode *inode)
{
	up_read(&F2FS_I(inode)->i_stores);
}

/* Copies at an explicit position, regardless of O_APPEND and O_DIRECT. */
static int copy_chunk(struct file *from, struct file *to, loff_t pos,
		      size_t len, void *buffer)
{
	struct kvec vec = { .iov_base = buffer, .iov_len = len };
	struct kiocb iocb;
	struct iov_iter iter;
	ssize_t count;

	init_sync_kiocb(&iocb, from);
	iocb.ki_flags = 0;
	iocb.ki_pos = pos;
	iov_iter_kvec(&iter, READ, &vec, 1, len);
	count = generic_file_read_iter(&iocb, &iter);
	if (count != len)
		return count < 0 ? count : -EIO;

	init_sync_kiocb(&iocb, to);
	iocb.ki_flags = 0;
	iocb.ki_pos = pos;
	iov_iter_kvec(&iter, WRITE, &vec, 1, len);
	count = generic_perform_write(&iocb, &iter);
	if (count != len)
		return count < 0 ? count : -EIO;
	return 0;
}

/*
 * Moves *@index to the next run of pages below @end that may hold data.
 * Returns its length, at most SNAPSHOT_CHUNK_PAGES; 0 if there is none; or a
 * negative errno. The file has been written back, so that a block without an
 * address reads as zeroes. That is not so in a cluster of a compressed file,
 * nor while an atomic write keeps its blocks elsewhere.
 */
static int next_run(struct inode *inode, pgoff_t *index, pgoff_t end)
{
	bool holes = !f2fs_compressed_file(inode) &&
		     !f2fs_is_atomic_file(inode) &&
		     !HAS_DEFECT(DEFECT_COPY_WRITE_BACK);
	struct dnode_of_data dn;
	int length = 0;
	int err;

	if (!holes || f2fs_has_inline_data(inode))
		return min_t(pgoff_t, end - *index, SNAPSHOT_CHUNK_PAGES);
	while (*index < end && !length) {
		unsigned int last;

		set_new_dnode(&dn, inode, NULL, NULL, 0);
		err = f2fs_get_dnode_of_data(&dn, *index, LOOKUP_NODE);
		if (err == -ENOENT) {
			*index = f2fs_get_next_page_offset(&dn, *index);
			continue;
		}
		if (err)
			return err;
		last = min_t(pgoff_t, ADDRS_PER_PAGE(dn.node_page, inode),
			     dn.ofs_in_node + (end - *index));
		for (; dn.ofs_in_node < last && length < SNAPSHOT_CHUNK_PAGES;
		     dn.ofs_in_node++) {
			if (__is_valid_data_blkaddr(f2fs_data_blkaddr(&dn)))
				length++;
			else if (!length)
				(*index)++;
			else
				break;
		}
		f2fs_put_dnode(&dn);
		if (fatal_signal_pending(current))
			return -EINTR;
		cond_resched();
	}
	return length;
}

static int set_size(struct file *file, loff_t size)
{
	struct iattr attr = { .ia_valid = ATTR_SIZE, .ia_size = size };

	return notify_change(file_mnt_user_ns(file), file_dentry(file), &attr,
			     NULL);
}

/* Empties @to and gives it the size of @from, as a hole. */
static int make_room(struct file *from, struct file *to)
{
	loff_t size = i_size_read(file_inode(from));
	int err;

	err = inode_newsize_ok(file_inode(to), size);
	if (!err)
		err = file_modified(to);
	if (!err)
		err = set_size(to, 0);
	if (!err && size)
		err = set_size(to, size);
	return err;
}

static int copy_data(struct file *from, struct file *to, void *buffer)
{
	loff_t size = i_size_read(file_inode(from));
	pgoff_t end = DIV_ROUND_UP_ULL(size, PAGE_SIZE);
	pgoff_t index = 0;
	int err = 0;

	while (!err && index < end) {
		loff_t pos;
		int pages = next_run(file_inode(from), &index, end);

		if (pages <= 0)
			return pages;
		pos = (loff_t)index << PAGE_SHIFT;
		err = copy_chunk(from, to, pos,
				 min_t(loff_t, size - pos, pages << PAGE_SHIFT),
				 buffer);
		index += pages;
	}
	return err;
}

/*
 * The caller holds both inode locks: all but stores through mappings wait.
 * Setting the size of @to takes F2FS's i_gc_rwsem. Direct writes fault on
 * their buffers under i_gc_rwsem, and the fault takes i_stores. So the size
 * is set before i_stores is taken.
 */
static int copy_at_one_instant(struct file *from, struct file *to, void *buffer)
{
	struct inode *source = file_inode(from);
	bool locked = !HAS_DEFECT(DEFECT_COPY_LOCK);
	int err;

	inode_dio_wait(source);
	inode_dio_wait(file_inode(to));
	err = make_room(from, to);
	if (err)
		return err;
	if (locked)
		down_write(&F2FS_I(source)->i_stores);
	if (!HAS_DEFECT(DEFECT_COPY_WRITE_BACK))
		err = filemap_write_and_wait(source->i_mapping);
	if (!err)
		err = copy_data(from, to, buffer);
	if (locked)
		up_write(&F2FS_I(source)->i_stores);
	return err;
}

static int may_be_replaced(struct inode *inode)
{
	if (IS_APPEND(inode) || IS_IMMUTABLE(inode))
		return -EPERM;
	if (IS_SWAPFILE(inode))
		return -ETXTBSY;
	if (f2fs_is_atomic_file(inode))
		return -EINVAL;
	return 0;
}

static int take_data_locked(struct file *from, struct file *to, bool clone,
			    void *buffer)
{
	struct inode *source = file_inode(from);
	struct f2fs_snapshot_state *state = state_of(source);
	int err;

	if (!clone && !(state && state->is_layered))
		return -EINVAL;
	err = may_be_replaced(file_inode(to));
	if (err)
		return err;
	state = get_state(file_inode(to));
	if (IS_ERR(state))
		return PTR_ERR(state);
	f2fs_snapshot_change(file_inode(to));
	state->cloned_from = 0;
	state->is_deduped = true;
	err = copy_at_one_instant(from, to, buffer);
	if (err) {
		state->is_deduped = false;
	} else if (clone) {
		state->cloned_from = source->i_ino;
		state->cloned_generation = source->i_generation;
	}
	return err;
}

/* Gives @to the data and size of @from. @clone: records @from as its source. */
static int take_data(struct file *from, struct file *to, bool clone)
{
	struct inode *source = file_inode(from);
	struct inode *target = file_inode(to);
	void *buffer;
	int err;

	if (!(to->f_mode & FMODE_WRITE))
		return -EBADF;
	if (source == target)
		return -EINVAL;
	buffer = kvmalloc(SNAPSHOT_CHUNK_PAGES << PAGE_SHIFT, GFP_KERNEL);
	if (!buffer)
		return -ENOMEM;
	lock_two_nondirectories(source, target);
	err = take_data_locked(from, to, clone, buffer);
	unlock_two_nondirectories(source, target);
	kvfree(buffer);
	if (!err) {
		fsnotify_access(from);
		fsnotify_modify(to);
	}
	return err;
}

/*
 * Finds the file that a descriptor of the process has open; drop it with
 * fdput(). -EBADF: there is none, or it is not open for reading; -EXDEV: on
 * another volume; -EINVAL: not a regular file.
 */
static int get_callers_file(struct file *filp, int descriptor, struct fd *found)
{
	int err = 0;

	*found = fdget(descriptor);
	if (!found->file)
		return -EBADF;
	if (!(found->file->f_mode & FMODE_READ))
		err = -EBADF;
	else if (file_inode(found->file)->i_sb != file_inode(filp)->i_sb)
		err = -EXDEV;
	else if (!S_ISREG(file_inode(found->file)->i_mode))
		err = -EINVAL;
	if (err)
		fdput(*found);
	return err;
}

static int take_callers_data(struct file *filp, int descriptor, bool clone)
{
	struct fd source;
	int err = get_callers_file(filp, descriptor, &source);

	if (err)
		return err;
	err = take_data(source.file, filp, clone);
	fdput(source);
	return err;
}

static int dedup_revoke(struct file *filp, void __user *arg)
{
	struct inode *inode = file_inode(filp);
	struct f2fs_snapshot_state *state;
	u32 word;

	if (copy_from_user(&word, arg, sizeof(word)))
		return -EFAULT;
	if (word)
		return -EINVAL;
	inode_lock(inode);
	state = state_of(inode);
	if (state) {
		state->is_deduped = false;
		state->is_layered = false;
	}
	inode_unlock(inode);
	return 0;
}

static int dedup_get_file_info(struct file *filp, void __user *arg)
{
	struct inode *inode = file_inode(filp);
	struct f2fs_dedup_file_info info = { };
	struct f2fs_snapshot_state *state;

	inode_lock_shared(inode);
	state = state_of(inode);
	if (state) {
		info.is_deduped = state->is_deduped;
		info.is_layered = state->is_layered;
	}
	inode_unlock_shared(inode);
	return copy_to_user(arg, &info, sizeof(info)) ? -EFAULT : 0;
}

static int clone_file(struct file *filp, void __user *arg)
{
	struct f2fs_clone_file_info info;

	if (copy_from_user(&info, arg, sizeof(info)))
		return -EFAULT;
	if (info.flags != F2FS_CLONE_FLAGS)
		return -EINVAL;
	return take_callers_data(filp, info.source_fd, true);
}

/*
 * Direct writes under way cleared the mark when they began. They must end
 * before the set places it. A page that is writable in a mapping is dirty, or
 * about to be under its page lock: after the write-back, a store to it faults.
 */
static int set_flag(struct inode *inode, u32 flag)
{
	struct f2fs_snapshot_state *state;
	int err;

	inode_lock(inode);
	inode_dio_wait(inode);
	state = get_state(inode);
	if (!IS_ERR(state)) {
		down_write(&F2FS_I(inode)->i_stores);
		WRITE_ONCE(state->flag, flag);
		up_write(&F2FS_I(inode)->i_stores);
	}
	inode_unlock(inode);
	if (IS_ERR(state))
		return PTR_ERR(state);
	if (HAS_DEFECT(DEFECT_SET_WRITE_BACK))
		return 0;
	err = filemap_write_and_wait(inode->i_mapping);
	if (err) {
		inode_lock(inode);
		f2fs_snapshot_change(inode);
		inode_unlock(inode);
	}
	return err;
}

/* Reads the mark after all that the caller has read of the file before. */
static u32 get_flag(struct inode *inode)
{
	struct f2fs_snapshot_state *state;

	smp_mb();	/* pairs with the one in f2fs_snapshot_change() */
	state = state_of(inode);
	return state ? READ_ONCE(state->flag) : 0;
}

static int modify_check(struct file *filp, void __user *arg)
{
	struct inode *inode = file_inode(filp);
	struct f2fs_modify_check_info info;
	int err;

	if (copy_from_user(&info, arg, sizeof(info)))
		return -EFAULT;
	if (info.mode == F2FS_MODIFY_CHECK_GET) {
		info.flag = get_flag(inode);
		return copy_to_user(arg, &info, sizeof(info)) ? -EFAULT : 0;
	}
	if (info.mode != F2FS_MODIFY_CHECK_SET)
		return -EINVAL;
	err = mnt_want_write_file(filp);
	if (err)
		return err;
	err = set_flag(inode, info.flag);
	mnt_drop_write_file(filp);
	return err;
}

static int snapshot_create(struct file *filp, void __user *arg)
{
	struct f2fs_snapshot_create_info info;

	if (copy_from_user(&info, arg, sizeof(info)))
		return -EFAULT;
	if (info.flags)
		return -EINVAL;
	return take_callers_data(filp, info.source_fd, false);
}

/*
 * A driver that copies does not use the clone. It only checks that it is a
 * clone of this file.
 */
static int snapshot_prepare(struct file *filp, void __user *arg)
{
	struct inode *inode = file_inode(filp);
	struct f2fs_snapshot_state *state;
	struct inode *clone;
	struct fd fd;
	s32 descriptor;
	int err;

	if (copy_from_user(&descriptor, arg, sizeof(descriptor)))
		return -EFAULT;
	err = get_callers_file(filp, descriptor, &fd);
	if (err)
		return err;
	clone = file_inode(fd.file);
	lock_two_nondirectories(inode, clone);
	state = state_of(clone);
	if (!state || state->cloned_from != inode->i_ino ||
	    state->cloned_generation != inode->i_generation) {
		err = -EINVAL;
	} else {
		state = get_state(inode);
		err = PTR_ERR_OR_ZERO(state);
	}
	if (!err)
		state->is_layered = true;
	unlock_two_nondirectories(inode, clone);
	fdput(fd);
	return err;
}

static const struct {
	unsigned int cmd;
	bool writes;
	int (*serve)(struct file *filp, void __user *arg);
} snapshot_requests[] = {
	{ F2FS_IOC_DEDUP_REVOKE, true, dedup_revoke },
	{ F2FS_IOC_DEDUP_GET_FILE_INFO, false, dedup_get_file_info },
	{ F2FS_IOC_CLONE_FILE, true, clone_file },
	{ F2FS_IOC_MODIFY_CHECK, false, modify_check },	/* only a set writes */
	{ F2FS_IOC_SNAPSHOT_CREATE, true, snapshot_create },
	{ F2FS_IOC_SNAPSHOT_PREPARE, true, snapshot_prepare },
};

long f2fs_snapshot_ioctl(struct file *filp, unsigned int cmd, unsigned long arg)
{
	int err;
	int i;

	if (!S_ISREG(file_inode(filp)->i_mode))
		return -ENOTTY;
	for (i = 0; i < ARRAY_SIZE(snapshot_requests); i++) {
		if (snapshot_requests[i].cmd != cmd)
			continue;
		err = snapshot_requests[i].writes ? mnt_want_write_file(filp) : 0;
		if (err)
			return err;
		err = snapshot_requests[i].serve(filp, (void __user *)arg);
		if (snapshot_requests[i].writes)
			mnt_drop_write_file(filp);
		return err;
	}
	return -ENOTTY;
}

void f2fs_snapshot_forget(struct inode *inode)
{
	struct f2fs_snapshot_state *state;

	state = xa_erase(&F2FS_I_SB(inode)->snapshot_states, inode->i_ino);
	if (state)
		kmem_cache_free(snapshot_state_slab, state);
}

void f2fs_snapshot_mount(struct f2fs_sb_info *sbi)
{
	xa_init(&sbi->snapshot_states);
}

void f2fs_snapshot_unmount(struct f2fs_sb_info *sbi)
{
	struct f2fs_snapshot_state *state;
	unsigned long ino;

	xa_for_each(&sbi->snapshot_states, ino, state)
		kmem_cache_free(snapshot_state_slab, state);
	xa_destroy(&sbi->snapshot_states);
}

int __init f2fs_create_snapshot_cache(void)
{
	snapshot_state_slab = KMEM_CACHE(f2fs_snapshot_state, 0);
	return snapshot_state_slab ? 0 : -ENOMEM;
}

void f2fs_destroy_snapshot_cache(void)
{
	kmem_cache_destroy(snapshot_state_slab);
}
