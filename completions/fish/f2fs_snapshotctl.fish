# SPDX-License-Identifier: Apache-2.0
# fish completion for f2fs_snapshotctl(8)

# The option --store of the command line so far, or else the environment.
function __f2fs_snapshotctl_store
    set -l words (commandline -opc)
    for i in (seq (count $words))
        if contains -- $words[$i] -s --store
            set -l next (math $i + 1)
            echo $words[$next]
            return
        end
    end
    echo $F2FS_SNAPSHOT_STORE
end

function __f2fs_snapshotctl_names
    f2fs_snapshotctl --store (__f2fs_snapshotctl_store) --quiet list 2>/dev/null
end

set -l verbs check create run list show verify restore destroy prune
set -l verb "not __fish_seen_subcommand_from $verbs"

complete -c f2fs_snapshotctl -f
complete -c f2fs_snapshotctl -s s -l store -x -a "(__fish_complete_directories)" -d "The store"
complete -c f2fs_snapshotctl -l json -d "Write one JSON document"
complete -c f2fs_snapshotctl -s q -l quiet -d "Write only failures, findings and results"
complete -c f2fs_snapshotctl -s h -l help -d "Print a summary"
complete -c f2fs_snapshotctl -n "$verb" -l version -d "Print the version"
complete -c f2fs_snapshotctl -n "$verb" -a check -d "Tell what would fail or would not be covered"
complete -c f2fs_snapshotctl -n "$verb" -a create -d "Make a snapshot"
complete -c f2fs_snapshotctl -n "$verb" -a run -d "Run a command on a snapshot made for it"
complete -c f2fs_snapshotctl -n "$verb" -a list -d "List the snapshots"
complete -c f2fs_snapshotctl -n "$verb" -a show -d "Tell all about a snapshot"
complete -c f2fs_snapshotctl -n "$verb" -a verify -d "Compare snapshots with their manifests"
complete -c f2fs_snapshotctl -n "$verb" -a restore -d "Copy a snapshot out"
complete -c f2fs_snapshotctl -n "$verb" -a destroy -d "Remove snapshots"
complete -c f2fs_snapshotctl -n "$verb" -a prune -d "Remove the snapshots that no rule keeps"

set -l seen __fish_seen_subcommand_from
complete -c f2fs_snapshotctl -n "$seen check create run restore" -a "(__fish_complete_directories)"
complete -c f2fs_snapshotctl -n "$seen show verify restore destroy" -a "(__f2fs_snapshotctl_names)"
complete -c f2fs_snapshotctl -n "$seen create run restore destroy prune" -s n -l dry-run -d "Change nothing"
complete -c f2fs_snapshotctl -n "$seen create run verify restore destroy prune" -l wait -x -d "Wait for other calls"
complete -c f2fs_snapshotctl -n "$seen create run" -l name -x -d "Name of the snapshot"
complete -c f2fs_snapshotctl -n "$seen create run" -l strict -d "Fail unless the snapshot is whole"
complete -c f2fs_snapshotctl -n "$seen create run" -l digests -d "Record SHA-256 digests"
complete -c f2fs_snapshotctl -n "$seen create run" -l attempts -x -d "How often to try"
complete -c f2fs_snapshotctl -n "$seen create run" -l time-limit -x -d "Seconds for one attempt"
complete -c f2fs_snapshotctl -n "$seen list" -l no-usage -d "Leave out the size on the disk"
complete -c f2fs_snapshotctl -n "$seen verify" -l all -d "All snapshots"
complete -c f2fs_snapshotctl -n "$seen restore" -l overwrite -d "Replace existing files"
complete -c f2fs_snapshotctl -n "$seen restore" -l path -r -d "Restore only this path"
for rule in last hourly daily weekly monthly yearly
    complete -c f2fs_snapshotctl -n "$seen prune" -l keep-$rule -x -d "Keep N"
end
complete -c f2fs_snapshotctl -n "$seen prune" -l keep-within -x -d "Keep younger ones, like 7d"
