// SPDX-License-Identifier: Apache-2.0
#include "java/jni/results.h"

namespace {

// A class and its constructor that native code calls. They are looked up for each result, so that
// no global reference keeps the class and its loader from being unloaded.
class Type {
  public:
    Type(JNIEnv* env, const char* name, const char* signature)
        : env_(env),
          class_(env, env->FindClass(name)),
          constructor_(env->GetMethodID(class_.get(), "<init>", signature)) {
        throwIfPending(env);
    }

    template <typename... Arguments>
    Local<jobject> make(Arguments... arguments) const {
        return {env_, env_->NewObject(class_.get(), constructor_, arguments...)};
    }
    Local<jobjectArray> makeArray(size_t size) const {
        return {env_, env_->NewObjectArray(static_cast<jsize>(size), class_.get(), nullptr)};
    }

  private:
    JNIEnv* env_;
    Local<jclass> class_;
    jmethodID constructor_;
};

jboolean toBoolean(int32_t value) {
    return value != 0 ? JNI_TRUE : JNI_FALSE;
}

// A newer manager can return longer entries: `size` is the distance from one entry to the next.
template <typename Entry>
const Entry& entryAt(const Entry* entries, size_t size, size_t index) {
    return *reinterpret_cast<const Entry*>(reinterpret_cast<const char*>(entries) + index * size);
}

// make(entry) returns an object of `type`.
template <typename Entry, typename Make>
Local<jobjectArray> newArray(JNIEnv* env, const Type& type, const Entry* entries, size_t count,
                             size_t size, Make make) {
    Local<jobjectArray> array = type.makeArray(count);
    for (size_t i = 0; i < count; ++i) {
        const Local<jobject> object = make(entryAt(entries, size, i));
        env->SetObjectArrayElement(array.get(), static_cast<jsize>(i), object.get());
        throwIfPending(env);
    }
    return array;
}

// `source` is a report, or a snapshot's information, which has members of the same names.
template <typename Source>
Local<jobject> newReport(JNIEnv* env, const Source& source) {
    const Type finding_type(env, "f2fs/snapshot/Finding", "([BIII[B)V");
    const Local<jobjectArray> findings =
        newArray(env, finding_type, source.findings, source.finding_count, source.finding_size,
                 [&](const f2fs_snapshot_finding& finding) {
                     return finding_type.make(newBytes(env, finding.path).get(), finding.kind,
                                              finding.severity, finding.os_error,
                                              newBytes(env, finding.message).get());
                 });
    return Type(env, "f2fs/snapshot/Report", "([Lf2fs/snapshot/Finding;JJJJ)V")
        .make(findings.get(), static_cast<jlong>(source.files),
              static_cast<jlong>(source.directories), static_cast<jlong>(source.links),
              static_cast<jlong>(source.bytes));
}

Local<jobjectArray> newSources(JNIEnv* env, const f2fs_snapshot_info& info) {
    const Local bytes_class(env, env->FindClass("[B"));
    Local sources(env, env->NewObjectArray(static_cast<jsize>(info.source_count), bytes_class.get(),
                                           nullptr));
    for (size_t i = 0; i < info.source_count; ++i) {
        env->SetObjectArrayElement(sources.get(), static_cast<jsize>(i),
                                   newBytes(env, info.sources[i]).get());
        throwIfPending(env);
    }
    return sources;
}

Local<jobject> newInfo(JNIEnv* env, const f2fs_snapshot_info& info) {
    return Type(env, "f2fs/snapshot/SnapshotInfo", "([B[B[[BJJJLf2fs/snapshot/Report;IIJZZZ)V")
        .make(newBytes(env, info.name).get(), newBytes(env, info.path).get(),
              newSources(env, info).get(), static_cast<jlong>(info.created),
              static_cast<jlong>(info.instant_earliest), static_cast<jlong>(info.instant_latest),
              newReport(env, info).get(), static_cast<jint>(info.attempts),
              static_cast<jint>(info.passes), static_cast<jlong>(info.files_again),
              toBoolean(info.whole), toBoolean(info.links_blocked), toBoolean(info.has_digests));
}

Local<jobject> newException(JNIEnv* env, const f2fs_snapshot_error& error) {
    return Type(env, "f2fs/snapshot/SnapshotException", "(II[B[B)V")
        .make(error.code, error.os_error, newBytes(env, error.path).get(),
              newBytes(env, error.message).get());
}

}  // namespace

jobject toJava(JNIEnv* env, const f2fs_snapshot_report& report) {
    return newReport(env, report).release();
}

jobject toJava(JNIEnv* env, const f2fs_snapshot_info& info) {
    return newInfo(env, info).release();
}

jobject toJava(JNIEnv* env, const f2fs_snapshot_list& list) {
    const Type type(env, "f2fs/snapshot/SnapshotEntry",
                    "([BLf2fs/snapshot/SnapshotInfo;Lf2fs/snapshot/SnapshotException;)V");
    return newArray(env, type, list.entries, list.entry_count, list.entry_size,
                    [&](const f2fs_snapshot_list_entry& entry) {
                        const Local<jbyteArray> name = newBytes(env, entry.name);
                        return entry.info != nullptr
                                   ? type.make(name.get(), newInfo(env, *entry.info).get(), nullptr)
                                   : type.make(name.get(), nullptr,
                                               newException(env, entry.error).get());
                    })
        .release();
}

jobject toJava(JNIEnv* env, const f2fs_snapshot_prune_result& result) {
    const Type type(env, "f2fs/snapshot/PruneEntry", "([BZ[B)V");
    return newArray(env, type, result.entries, result.entry_count, result.entry_size,
                    [&](const f2fs_snapshot_prune_entry& entry) {
                        return type.make(newBytes(env, entry.name).get(), toBoolean(entry.kept),
                                         newBytes(env, entry.reasons).get());
                    })
        .release();
}

void throwFailure(JNIEnv* env, const f2fs_snapshot_error& error) {
    env->Throw(static_cast<jthrowable>(newException(env, error).get()));
    throw JavaException();
}
