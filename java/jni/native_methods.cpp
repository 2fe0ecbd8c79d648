// SPDX-License-Identifier: Apache-2.0
// The native methods of f2fs.snapshot.Native, over the manager's C interface.
#include <iterator>
#include <memory>
#include <new>

#include "java/jni/callbacks.h"
#include "java/jni/environment.h"
#include "java/jni/results.h"

namespace {

struct Deleter {
    void operator()(f2fs_snapshot_report* report) const {
        f2fs_snapshot_report_free(report);
    }
    void operator()(f2fs_snapshot_info* info) const {
        f2fs_snapshot_info_free(info);
    }
    void operator()(f2fs_snapshot_list* list) const {
        f2fs_snapshot_list_free(list);
    }
    void operator()(f2fs_snapshot_prune_result* result) const {
        f2fs_snapshot_prune_result_free(result);
    }
};
template <typename Result>
using Owned = std::unique_ptr<Result, Deleter>;

// Runs the body of a native method. No C++ exception reaches the VM.
template <typename Body>
auto guarded(JNIEnv* env, Body body) noexcept -> decltype(body()) {
    try {
        return body();
    } catch (const JavaException&) {
        // pending
    } catch (const std::bad_alloc&) {
        jclass error = env->FindClass("java/lang/OutOfMemoryError");
        if (error != nullptr) {
            env->ThrowNew(error, "native memory");
        }
    }
    return decltype(body())();
}

f2fs_snapshot_store* storeAt(jlong address) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): Java has no other type for an address
    return reinterpret_cast<f2fs_snapshot_store*>(static_cast<uintptr_t>(address));
}

// Calls a function of the manager: call(&error). An exception of a listener takes precedence over
// the failure that it caused.
template <typename Call>
void callManager(JNIEnv* env, Call call) {
    f2fs_snapshot_error error = F2FS_SNAPSHOT_ERROR_INIT;
    const int32_t code = call(&error);
    throwIfPending(env);
    if (code != F2FS_SNAPSHOT_OK) {
        throwFailure(env, error);
    }
}

// The same for a function that returns a structure: call(&result, &error).
template <typename Result, typename Call>
Owned<Result> resultOf(JNIEnv* env, Call call) {
    Result* result = nullptr;
    callManager(env, [&](f2fs_snapshot_error* error) { return call(&result, error); });
    return Owned<Result>(result);
}

jbyteArray version(JNIEnv* env, jclass /*type*/) {
    return guarded(env, [&] { return newBytes(env, f2fs_snapshot_manager_version()).release(); });
}

jlong openStore(JNIEnv* env, jclass /*type*/, jbyteArray path, jboolean create) {
    return guarded(env, [&] {
        f2fs_snapshot_store* store = nullptr;
        const std::string directory = stringOf(env, path);
        const uint32_t flags = create == JNI_TRUE ? F2FS_SNAPSHOT_STORE_CREATE : 0;
        callManager(env, [&](f2fs_snapshot_error* error) {
            return f2fs_snapshot_store_open(directory.c_str(), flags, &store, error);
        });
        return static_cast<jlong>(reinterpret_cast<uintptr_t>(store));
    });
}

void closeStore(JNIEnv* /*env*/, jclass /*type*/, jlong store) {
    f2fs_snapshot_store_close(storeAt(store));
}

jbyteArray pathOfStore(JNIEnv* env, jclass /*type*/, jlong store) {
    return guarded(
        env, [&] { return newBytes(env, f2fs_snapshot_store_path(storeAt(store))).release(); });
}

jobject check(JNIEnv* env, jclass /*type*/, jlong store, jobjectArray sources, jobject listener,
              jobject token) {
    return guarded(env, [&] {
        const std::vector<std::string> paths = stringsOf(env, sources);
        const std::vector<const char*> pointers = pointersTo(paths);
        const Callbacks callbacks(env, listener, token);
        f2fs_snapshot_check_options options = F2FS_SNAPSHOT_CHECK_OPTIONS_INIT;
        options.callbacks = callbacks.get();
        return toJava(env, *resultOf<f2fs_snapshot_report>(env, [&](auto result, auto error) {
                          return f2fs_snapshot_check(storeAt(store), pointers.data(),
                                                     pointers.size(), &options, result, error);
                      }));
    });
}

// Destroys the new snapshot if its information cannot be returned: the caller could not find it.
jobject createOrNothing(JNIEnv* env, f2fs_snapshot_store* store,
                        const std::vector<const char*>& sources,
                        const f2fs_snapshot_create_options& options) {
    Owned<f2fs_snapshot_info> info;
    try {
        callManager(env, [&](f2fs_snapshot_error* error) {
            f2fs_snapshot_info* made = nullptr;
            const int32_t code =
                f2fs_snapshot_create(store, sources.data(), sources.size(), &options, &made, error);
            info.reset(made);
            return code;
        });
        return toJava(env, *info);
    } catch (...) {
        if (info != nullptr) {
            f2fs_snapshot_destroy(store, info->name, nullptr, nullptr);
        }
        throw;
    }
}

jobject create(JNIEnv* env, jclass /*type*/, jlong store, jobjectArray sources, jbyteArray name,
               jboolean strict, jboolean digests, jint attempts, jlong time_limit,
               jbyteArray helper, jobject listener, jobject token) {
    return guarded(env, [&] {
        const std::vector<std::string> paths = stringsOf(env, sources);
        const std::string name_bytes = stringOf(env, name);
        const std::string helper_bytes = stringOf(env, helper);
        const Callbacks callbacks(env, listener, token);
        f2fs_snapshot_create_options options = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
        options.callbacks = callbacks.get();
        options.name = name == nullptr ? nullptr : name_bytes.c_str();
        options.strict = strict;
        options.digests = digests;
        options.attempts = static_cast<uint32_t>(attempts);
        options.time_limit = static_cast<uint32_t>(time_limit);
        options.helper = helper == nullptr ? nullptr : helper_bytes.c_str();
        return createOrNothing(env, storeAt(store), pointersTo(paths), options);
    });
}

jobjectArray list(JNIEnv* env, jclass /*type*/, jlong store) {
    return guarded(env, [&] {
        return static_cast<jobjectArray>(
            toJava(env, *resultOf<f2fs_snapshot_list>(env, [&](auto result, auto error) {
                       return f2fs_snapshot_list_all(storeAt(store), result, error);
                   })));
    });
}

jobject show(JNIEnv* env, jclass /*type*/, jlong store, jbyteArray name) {
    return guarded(env, [&] {
        const std::string name_bytes = stringOf(env, name);
        return toJava(env, *resultOf<f2fs_snapshot_info>(env, [&](auto result, auto error) {
                          return f2fs_snapshot_show(storeAt(store), name_bytes.c_str(), result,
                                                    error);
                      }));
    });
}

jlong diskUsage(JNIEnv* env, jclass /*type*/, jlong store, jbyteArray name) {
    return guarded(env, [&] {
        const std::string name_bytes = stringOf(env, name);
        uint64_t bytes = 0;
        callManager(env, [&](f2fs_snapshot_error* error) {
            return f2fs_snapshot_disk_usage(storeAt(store), name_bytes.c_str(), &bytes, error);
        });
        return static_cast<jlong>(bytes);
    });
}

jobject verify(JNIEnv* env, jclass /*type*/, jlong store, jbyteArray name, jobject listener,
               jobject token) {
    return guarded(env, [&] {
        const std::string name_bytes = stringOf(env, name);
        const Callbacks callbacks(env, listener, token);
        f2fs_snapshot_verify_options options = F2FS_SNAPSHOT_VERIFY_OPTIONS_INIT;
        options.callbacks = callbacks.get();
        return toJava(env, *resultOf<f2fs_snapshot_report>(env, [&](auto result, auto error) {
                          return f2fs_snapshot_verify(storeAt(store), name_bytes.c_str(), &options,
                                                      result, error);
                      }));
    });
}

jobject restore(JNIEnv* env, jclass /*type*/, jlong store, jbyteArray name, jbyteArray destination,
                jobjectArray paths, jboolean overwrite, jboolean dry_run, jobject listener,
                jobject token) {
    return guarded(env, [&] {
        const std::string name_bytes = stringOf(env, name);
        const std::string destination_bytes = stringOf(env, destination);
        const std::vector<std::string> path_list = stringsOf(env, paths);
        const std::vector<const char*> pointers = pointersTo(path_list);
        const Callbacks callbacks(env, listener, token);
        f2fs_snapshot_restore_options options = F2FS_SNAPSHOT_RESTORE_OPTIONS_INIT;
        options.callbacks = callbacks.get();
        options.paths = paths == nullptr ? nullptr : pointers.data();
        options.path_count = pointers.size();
        options.overwrite = overwrite;
        options.dry_run = dry_run;
        return toJava(env, *resultOf<f2fs_snapshot_report>(env, [&](auto result, auto error) {
                          return f2fs_snapshot_restore(storeAt(store), name_bytes.c_str(),
                                                       destination_bytes.c_str(), &options, result,
                                                       error);
                      }));
    });
}

void destroy(JNIEnv* env, jclass /*type*/, jlong store, jbyteArray name, jobject listener,
             jobject token) {
    guarded(env, [&] {
        const std::string name_bytes = stringOf(env, name);
        const Callbacks callbacks(env, listener, token);
        f2fs_snapshot_destroy_options options = F2FS_SNAPSHOT_DESTROY_OPTIONS_INIT;
        options.callbacks = callbacks.get();
        callManager(env, [&](f2fs_snapshot_error* error) {
            return f2fs_snapshot_destroy(storeAt(store), name_bytes.c_str(), &options, error);
        });
    });
}

jobjectArray prune(JNIEnv* env, jclass /*type*/, jlong store, jint last, jint hourly, jint daily,
                   jint weekly, jint monthly, jint yearly, jlong within, jboolean dry_run,
                   jobject listener, jobject token) {
    return guarded(env, [&] {
        const Callbacks callbacks(env, listener, token);
        f2fs_snapshot_prune_options options = F2FS_SNAPSHOT_PRUNE_OPTIONS_INIT;
        options.callbacks = callbacks.get();
        options.keep_last = static_cast<uint32_t>(last);
        options.keep_hourly = static_cast<uint32_t>(hourly);
        options.keep_daily = static_cast<uint32_t>(daily);
        options.keep_weekly = static_cast<uint32_t>(weekly);
        options.keep_monthly = static_cast<uint32_t>(monthly);
        options.keep_yearly = static_cast<uint32_t>(yearly);
        options.keep_within = static_cast<uint64_t>(within);
        options.dry_run = dry_run;
        return static_cast<jobjectArray>(
            toJava(env, *resultOf<f2fs_snapshot_prune_result>(env, [&](auto result, auto error) {
                       return f2fs_snapshot_prune(storeAt(store), &options, result, error);
                   })));
    });
}

// The members for name and signature are char* in a JDK's jni.h, const char* in the NDK's.
template <typename Function>
JNINativeMethod method(const char* name, const char* signature, Function function) {
    return {const_cast<char*>(name), const_cast<char*>(signature),
            reinterpret_cast<void*>(function)};
}

#define CALLBACKS "Lf2fs/snapshot/ProgressListener;Lf2fs/snapshot/CancelToken;"

bool registerMethods(JNIEnv* env) {
    const JNINativeMethod methods[] = {
        method("version", "()[B", version),
        method("open", "([BZ)J", openStore),
        method("close", "(J)V", closeStore),
        method("path", "(J)[B", pathOfStore),
        method("check", "(J[[B" CALLBACKS ")Lf2fs/snapshot/Report;", check),
        method("create", "(J[[B[BZZIJ[B" CALLBACKS ")Lf2fs/snapshot/SnapshotInfo;", create),
        method("list", "(J)[Lf2fs/snapshot/SnapshotEntry;", list),
        method("show", "(J[B)Lf2fs/snapshot/SnapshotInfo;", show),
        method("diskUsage", "(J[B)J", diskUsage),
        method("verify", "(J[B" CALLBACKS ")Lf2fs/snapshot/Report;", verify),
        method("restore", "(J[B[B[[BZZ" CALLBACKS ")Lf2fs/snapshot/Report;", restore),
        method("destroy", "(J[B" CALLBACKS ")V", destroy),
        method("prune", "(JIIIIIIJZ" CALLBACKS ")[Lf2fs/snapshot/PruneEntry;", prune),
    };
    jclass type = env->FindClass("f2fs/snapshot/Native");
    return type != nullptr &&
           env->RegisterNatives(type, methods, static_cast<jint>(std::size(methods))) == JNI_OK;
}

}  // namespace

// A failed step leaves a Java exception pending, which System.loadLibrary throws.
extern "C" JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM* vm, void* /*reserved*/) {
    void* env = nullptr;
    if (vm->GetEnv(&env, JNI_VERSION_1_6) != JNI_OK ||
        !registerMethods(static_cast<JNIEnv*>(env))) {
        return JNI_ERR;
    }
    return JNI_VERSION_1_6;
}
