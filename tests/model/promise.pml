// SPDX-License-Identifier: Apache-2.0
// The promise of a successful create, as a model: every file that existed throughout is in the
// snapshot with its content as of one instant, the start of the last check pass.
//
// The tool makes a snapshot of NAMES names and checks it in at most PASSES passes, one kernel call
// a step. Between any two steps the world may change any file, CHANGES times in all. A change is
// one step, so the one world does whatever any number of writers could do together.
//
// The limits of the promise, each switched on by its name:
//     HARD_LINKS    two names of one inode
//     MOVE_MARKED   a file that is marked, or just being marked, is renamed over another
//     REARM         another prepare or create on the same sources sets marks
//     UNREADABLE    a check pass can end early, at a directory that it cannot read
//     DELETED       the promise includes deleted files
// What the argument excludes, likewise:
//     MARK_LATE     a tool that takes the data first and marks the file after it
//     SPLIT_WRITE   a driver that can set a mark between the two halves of a change: the old mark's
//                   loss, and the new data
// LATE asserts instead that a create that has made files again never succeeds while a file changes.
// This must fail, which shows that the search reaches such creates.
#ifndef CHANGES
#define CHANGES 3
#endif
#define NAMES 3
#define PASSES 3
#define INODES (NAMES + CHANGES)
#define NONE 255

byte inode_at[NAMES];    // what each name stands for
byte content[INODES];    // a number that no other content has
bit marked[INODES], layered[INODES];
byte inodes = NAMES, contents = NAMES, changes;  // so far
byte held = NONE;        // the inode that the tool has open to mark it

byte snapshot[NAMES];    // the content taken for each name
byte at_start[NAMES];    // the content at the start of the pass
bit throughout[NAMES];   // there since the call began

inline remove(n) {
    inode_at[n] = NONE;
#ifndef DELETED
    throughout[n] = 0
#endif
}

inline pick(n) {
    changes < CHANGES;
    changes++;
    select(n : 0 .. NAMES - 1)
}

proctype world() {
    byte n, m;
end:
    do
    :: atomic { pick(n);  // a write
        m = inode_at[n];
        if :: m != NONE -> marked[m] = 0; printf("    %d is written to\n", n) :: else fi;
#ifdef SPLIT_WRITE
       } atomic {
#endif
        if :: m != NONE -> content[m] = contents; contents++ :: else fi;
        m = 0 }
    :: atomic { pick(n);  // a new file, in the place of the old one if there is one
        inode_at[n] = inodes;
        content[inodes] = contents; contents++;
        inodes++;
        printf("    a new file is put at %d\n", n) }
    :: atomic { pick(n); remove(n); printf("    %d is deleted\n", n) }
    :: atomic { pick(n); select(m : 0 .. NAMES - 1);  // a rename
        if
        :: n == m || inode_at[n] == NONE
#ifndef MOVE_MARKED
        :: inode_at[m] != NONE && inode_at[n] != NONE && (marked[inode_at[n]] || inode_at[n] == held)
#endif
        :: else -> inode_at[m] = inode_at[n]; remove(n); printf("    %d is renamed to %d\n", n, m)
        fi;
        m = 0 }
#ifdef REARM
    :: atomic { pick(n);
        if :: inode_at[n] != NONE -> marked[inode_at[n]] = 1; printf("    %d is marked\n", n) :: else fi }
#endif
    od
}

inline open_held(n) {
    held = inode_at[n];
    if :: held == NONE -> goto failed :: else fi
}

inline mark(n) {
    d_step { marked[held] = 1; printf("tool: marks %d\n", n) }
}

inline copy(n) {
    d_step { snapshot[n] = content[held]; printf("tool: takes %d\n", n) }
}

inline prepare(n) {
    open_held(n);
    if :: !layered[held] -> mark(n); layered[held] = 1 :: else fi
}

inline take(n) {
    open_held(n);
    if :: !layered[held] -> goto failed :: else fi;  // another file than was prepared
#ifdef MARK_LATE
    copy(n);
    mark(n);
#else
    mark(n);
    copy(n);
#endif
    held = NONE
}

proctype tool() {
    byte n, f, pass;
    bit listed[NAMES], any;  // to be made again
    for (pass : 0 .. PASSES) {
        for (n : 0 .. NAMES - 1) {
            if :: pass == 0 && inode_at[n] != NONE || listed[n] -> prepare(n); take(n) :: else fi
        }
        if :: pass == PASSES -> goto failed :: else fi;  // files kept changing
        d_step {
            printf("tool: pass %d\n", pass);
            any = 0;
            for (n : 0 .. NAMES - 1) {
                listed[n] = 0;
                at_start[n] = (inode_at[n] == NONE -> NONE : content[inode_at[n]])
            }
        }
        for (n : 0 .. NAMES - 1) {
            if
            :: inode_at[n] != NONE ->
                f = inode_at[n];
                d_step {
                    listed[n] = (f == NONE || !marked[f] || snapshot[n] == NONE);
                    any = any || listed[n];
                    f = 0;
                    printf("tool: %d changed: %d\n", n, listed[n])
                }
            :: inode_at[n] == NONE
#ifdef UNREADABLE
            :: true -> break
#endif
            fi
        }
        if :: !any -> break :: else fi
    }
    n = 0;
    do
    :: n < NAMES ->
#ifdef LATE
        assert(pass == 0 || !throughout[n] || snapshot[n] == content[inode_at[n]]);
#else
        assert(!throughout[n] || snapshot[n] == at_start[n]);
#endif
        n++
    :: else -> break
    od
failed:
    skip
}

init {
    byte n;
    bit prepared;
    atomic {
        select(prepared : 0 .. 1);
        for (n : 0 .. NAMES - 1) {
            inode_at[n] = n; content[n] = n;
            marked[n] = prepared; layered[n] = prepared;
            snapshot[n] = NONE; throughout[n] = 1
        }
#ifdef HARD_LINKS
        inode_at[1] = inode_at[0];
#endif
        run world();
        run tool()
    }
}
