// SPDX-License-Identifier: Apache-2.0
// The manager's promise, as a model: a snapshot that it calls whole is the tree as it was at one
// instant, the start of the library's last check pass: names, types, link texts and contents.
//
// The tree is a directory with two names, at first a file and a link, and a directory in it with one
// name. A second directory is outside. One attempt is modelled, with one check pass: promise.pml
// covers files that are made again. An attempt takes over nothing from the one before.
//
// The world changes the tree between any two steps of the manager and the library, CHANGES times in
// all. A change of names has three steps: the directories are locked and the clock is read; the names
// change; the time is stored and the directories are unlocked. The clock advances in ticks. A reader of
// a directory's names waits until it is unlocked, all others do not. A directory can seem to end early,
// once.
//
// The parts of the argument, each switched off by its name:
//     ONE_LISTING    there is no second listing
//     NO_TIMES       the times of directories are not compared
//     NO_INODES      the inodes of names are not compared
//     NO_WAIT        the first listing does not wait for the end of a tick
//     TIME_LAST      the first listing reads a directory's time after its names
//     TIME_FIRST     the second listing reads a directory's time before its names
//     NO_LOCK        names can be read while a change of them is under way
//     NO_COUNT       a check pass that ended early counts as any other
//     NO_COMPARISON  the snapshot is not compared with the first listing
// A limit of the promise:
//     THERE_AND_BACK the path of a directory leads to another one for a while, and no directory of
//                    the tree changes
#ifndef CHANGES
#define CHANGES 2
#endif
#define TICKS 1   // besides those that are waited for
#define NONE 255

// Names: two of the top, one of the directory in it, the same one of the directory outside.
#define SLOTS 4
#define TOP 0
#define DIRECTORY(slot) (slot < 2 -> TOP : slot - 1)
#define PATHS 3
#define SLOT(path) (path < 2 -> path : inner + 1)

#define OBJECTS (SLOTS + CHANGES)
byte object_at[SLOTS];
byte inner = 1;            // which directory has the name in the top
byte version[OBJECTS];     // of a file's content
bit is_link[OBJECTS], marked[OBJECTS];
byte objects = SLOTS, changes, ticks;  // so far
byte clock = 1;
byte time[3];              // of the last change of a directory's names
bit locked[3];
bit is_moved, is_over, has_ended;

// Whether a name stands for something else than before. The text of a link never changes.
#ifdef NO_INODES
#define IS_OTHER(object, before) (object != NONE && before != NONE &&                 \
    (is_link[object] != is_link[before] || is_link[object] && object != before))
#else
#define IS_OTHER(object, before) (object != before)
#endif

#define IS_FILE(object) (object != NONE && !is_link[object])
#define IS_LINK(object) (object != NONE && is_link[object])
#define VALUE(object) (object == NONE -> NONE : (object * 8 + version[object]))

byte snapshot[PATHS];      // the value taken for each path
byte at_start[PATHS];      // the value at the start of the pass
byte listed[PATHS];        // the object in the first listing
byte listed_time[2], listed_inner;
byte files, checked;       // files of the first listing, and of the pass

// Kinds of changes of names.
mtype = { MAKE, REMOVE, RENAME, EXCHANGE, SWAP };

inline apply() {
    if
    :: kind == MAKE ->  // a new file or link, or one from elsewhere, also over what was there
        object_at[s] = objects;
        if :: is_link[objects] = 1 :: marked[objects] = 1 :: skip fi;
        objects++
    :: kind == REMOVE -> object_at[s] = NONE
    :: kind == RENAME -> object_at[t] = object_at[s]; object_at[s] = NONE
    :: kind == EXCHANGE -> held_by_world = object_at[s]; object_at[s] = object_at[t];
        object_at[t] = held_by_world; held_by_world = 0
    :: kind == SWAP -> inner = 3 - inner
    fi
}

inline choose() {
    if
    :: kind = MAKE; select(s : 0 .. PATHS - 1); t = s
    :: kind = REMOVE; select(s : 0 .. PATHS - 1); t = s
    :: kind = RENAME; select(s : 0 .. PATHS - 1); select(t : 0 .. PATHS - 1)
    :: kind = EXCHANGE; select(s : 0 .. PATHS - 1); select(t : 0 .. PATHS - 1)
    :: kind = SWAP; s = 0; t = 0
    fi
}

#define IS_POSSIBLE                                                                  \
    (!locked[DIRECTORY(s)] && !locked[DIRECTORY(t)] &&                               \
     (kind == MAKE || (kind == SWAP -> !is_moved : object_at[s] != NONE)) &&         \
     (kind != RENAME || s != t) && (kind != EXCHANGE || (s < t && object_at[t] != NONE)))

proctype world() {
    byte s, t, stamp, held_by_world;
    mtype kind;
end:
    do
    :: atomic { changes < CHANGES && !is_over -> changes++;  // a write
        select(s : 0 .. PATHS - 1);
        if
        :: IS_FILE(object_at[s]) ->
            marked[object_at[s]] = 0;
            version[object_at[s]]++;
            printf("    slot %d is written to\n", s)
        :: else
        fi;
        s = 0 }
    :: atomic { changes < CHANGES && !is_over -> choose();
        if
        :: IS_POSSIBLE -> changes++;
            locked[DIRECTORY(s)] = 1; locked[DIRECTORY(t)] = 1; stamp = clock
        :: else -> kind = 0; s = 0; t = 0; goto end
        fi }
        atomic { apply(); printf("    %e of slots %d and %d, in tick %d\n", kind, s, t, stamp) }
        atomic {
            time[DIRECTORY(s)] = stamp; time[DIRECTORY(t)] = stamp;
            locked[DIRECTORY(s)] = 0; locked[DIRECTORY(t)] = 0;
            printf("    the time is stored\n");
            kind = 0; s = 0; t = 0; stamp = 0 }
    :: atomic { changes < CHANGES && !is_over && !is_moved -> changes++;
#ifndef THERE_AND_BACK
        is_moved = 1;
#endif
        inner = 3 - inner;
        printf("    the other directory gets to the path of the inner one\n") }
    :: atomic { ticks < TICKS && !is_over -> ticks++; clock++; printf("    tick %d\n", clock) }
    od
}

#ifdef NO_TIMES
#define HAS_CHANGED(d) false
#else
#define HAS_CHANGED(d) (time[d] != listed_time[d > 0])
#endif

#ifdef NO_LOCK
#define wait_for_lock(d) skip
#else
#define wait_for_lock(d) !locked[d]
#endif

inline read_time(d) {
#ifdef NO_WAIT
    atomic { listed_time[d > 0] = time[d]; printf("first listing: time of %d is %d\n", d, time[d]) }
#else
    do
    :: atomic { listed_time[d > 0] = time[d]; printf("first listing: time of %d is %d\n", d, time[d]) }
        if
        :: atomic { listed_time[d > 0] < clock -> break }
        :: atomic { else -> clock++; printf("    tick %d\n", clock) }
        fi
    od
#endif
}

// Where a directory's name n is: 0 and 1 are of the top, 2 is of the others.
#define AT(d, n) (d == TOP -> n : d + 1)

// Reads the names, then looks at what they stand for. A name that is gone by then is left out.
inline list_directory(d, first, last) {
#ifndef TIME_LAST
    read_time(d);
#endif
    atomic {
        wait_for_lock(d);
        for (n : first .. last) { names[n] = (object_at[AT(d, n)] != NONE) }
        printf("first listing: names of %d\n", d)
    }
    atomic {
        for (n : first .. last) {
            listed[n] = (names[n] -> object_at[AT(d, n)] : NONE);
            if :: listed[n] != NONE && !is_link[listed[n]] -> files++ :: else fi;
            names[n] = 0
        }
    }
#ifdef TIME_LAST
    read_time(d);
#endif
}

inline compare_time(d) {
    atomic {
        differs = differs || HAS_CHANGED(d);
        printf("second listing: time of %d is %d\n", d, time[d])
    }
}

inline compare_directory(d, first, last) {
#ifdef TIME_FIRST
    compare_time(d);
#endif
    atomic {
        wait_for_lock(d);
        for (n : first .. last) {
            differs = differs || ((listed[n] != NONE) != (object_at[AT(d, n)] != NONE))
        }
        printf("second listing: names of %d\n", d)
    }
#ifndef TIME_FIRST
    compare_time(d);
#endif
    for (n : first .. last) {
        atomic { differs = differs || IS_OTHER(object_at[AT(d, n)], listed[n]) }
    }
}

// The library, which goes by paths: takes files and makes links again, then checks files.
inline take_all() {
    for (n : 0 .. PATHS - 1) {
        if
        :: atomic { IS_FILE(object_at[SLOT(n)]) ->
            marked[object_at[SLOT(n)]] = 1;
            snapshot[n] = VALUE(object_at[SLOT(n)]);
            printf("library: takes %d\n", n) }
        :: atomic { IS_LINK(object_at[SLOT(n)]) ->
            snapshot[n] = VALUE(object_at[SLOT(n)]);
            printf("library: makes the link %d\n", n) }
        :: object_at[SLOT(n)] == NONE
        :: atomic { !has_ended -> has_ended = 1;
            printf("library: the directory seems to end before %d\n", n); break }
        fi
    }
}

inline check_all() {
    for (n : 0 .. PATHS - 1) {
        if
        :: atomic { IS_FILE(object_at[SLOT(n)]) ->
            checked++;
            is_again = is_again || !marked[object_at[SLOT(n)]] || snapshot[n] == NONE;
            printf("library: checks %d\n", n) }
        :: !IS_FILE(object_at[SLOT(n)])
        :: atomic { !has_ended -> has_ended = 1;
            printf("library: the pass ends before %d\n", n); break }
        fi
    }
}

// Whether the snapshot has another name, type or link text than the first listing.
#ifdef NO_COMPARISON
#define IS_TAKEN_OTHERWISE(n) false
#else
#define IS_TAKEN_OTHERWISE(n)                                                        \
    ((snapshot[n] == NONE) != (listed[n] == NONE) ||                                 \
     (listed[n] != NONE &&                                                           \
      (is_link[snapshot[n] / 8] != is_link[listed[n]] ||                             \
       is_link[listed[n]] && snapshot[n] / 8 != listed[n])))
#endif

proctype manager() {
    byte n, d;
    bit names[PATHS], is_again, differs;
    list_directory(TOP, 0, 1);
    listed_inner = inner;
    list_directory(listed_inner, 2, 2);
    take_all();
    skip;
    d_step {
        printf("library: pass\n");
        for (n : 0 .. PATHS - 1) { at_start[n] = VALUE(object_at[SLOT(n)]) }
    }
    check_all();
    if :: is_again -> goto over :: else fi;
#ifndef ONE_LISTING
    compare_directory(TOP, 0, 1);
    atomic {
        d = inner;
#ifndef NO_INODES
        differs = differs || d != listed_inner
#endif
    }
    compare_directory(d, 2, 2);
#endif
#ifndef NO_COUNT
    differs = differs || checked != files;
#endif
    for (n : 0 .. PATHS - 1) {
        assert(differs || IS_TAKEN_OTHERWISE(0) || IS_TAKEN_OTHERWISE(1) ||
            IS_TAKEN_OTHERWISE(2) || snapshot[n] == at_start[n])
    }
over:
    is_over = 1
}

init {
    byte n;
    atomic {
        for (n : 0 .. SLOTS - 1) { object_at[n] = n }
        for (n : 0 .. PATHS - 1) { snapshot[n] = NONE; listed[n] = NONE }
        for (n : 0 .. 2) { time[n] = clock }
        is_link[1] = 1; marked[3] = 1;
        n = 0;
        run world();
        run manager()
    }
}
