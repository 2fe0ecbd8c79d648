// SPDX-License-Identifier: Apache-2.0
import f2fs.snapshot.SnapshotStore
import java.nio.file.Files
import java.nio.file.Paths

fun main(args: Array<String>) {
    val photos = Paths.get(args[0])
    SnapshotStore.openOrCreate(Paths.get(args[1])).use { store ->
        store.create(photos).use { snapshot ->
            println("all as of ${snapshot.info().instantLatest()}")
            Files.walk(snapshot.pathOf(photos)).use { files -> files.forEach { println(it) } }
        } // closing the snapshot destroys it
    }
}
