// SPDX-License-Identifier: Apache-2.0
package f2fs.snapshot;

import java.net.URI;
import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.StandardCharsets;
import java.nio.file.FileSystems;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.Arrays;

/**
 * Paths and names as the bytes that the file system has.
 *
 * <p>A Path of the default file system holds bytes, but shows them only as text in the locale's
 * encoding, which replaces bytes that it cannot decode. Its URI has every byte, percent-encoded. So
 * paths are converted through URIs, in both directions.
 */
final class FileNames {
    private static final Path ROOT = Paths.get("/");
    private static final String PLAIN = "/-._~";
    private static final String HEX = "0123456789ABCDEF";

    private FileNames() {}

    /** The bytes of the absolute path. */
    static byte[] bytes(Path path) {
        if (path.getFileSystem() != FileSystems.getDefault()) {
            throw new IllegalArgumentException("not a path of the default file system: " + path);
        }
        if (path.toString().isEmpty()) {
            throw new IllegalArgumentException("the path is empty");
        }
        byte[] bytes = decode(path.toUri().getRawPath());
        // The URI of a directory ends with a slash.
        if (bytes.length > 1 && bytes[bytes.length - 1] == '/') {
            bytes = Arrays.copyOf(bytes, bytes.length - 1);
        }
        if (!path(bytes).equals(path.toAbsolutePath())) {
            throw new InvalidPathException(path.toString(), "this VM does not tell its bytes");
        }
        return bytes;
    }

    static byte[][] bytes(Path... paths) {
        byte[][] list = new byte[paths.length][];
        for (int i = 0; i < paths.length; i++) {
            list[i] = bytes(paths[i]);
        }
        return list;
    }

    static Path path(byte[] bytes) {
        if (bytes.length == 0 || bytes[0] != '/') {
            byte[] absolute = new byte[bytes.length + 1];
            absolute[0] = '/';
            System.arraycopy(bytes, 0, absolute, 1, bytes.length);
            return ROOT.relativize(path(absolute));
        }
        return Paths.get(URI.create("file://" + encode(bytes)));
    }

    /** A snapshot's name in UTF-8. */
    static byte[] name(String name) throws SnapshotException {
        try {
            if (name.indexOf('\0') >= 0) {
                throw new CharacterCodingException();
            }
            ByteBuffer buffer = StandardCharsets.UTF_8.newEncoder().encode(CharBuffer.wrap(name));
            return Arrays.copyOf(buffer.array(), buffer.limit());
        } catch (CharacterCodingException exception) {
            throw new SnapshotException(ErrorCode.NAME, 0, new byte[0],
                    "a snapshot cannot have this name: it contains U+0000 or half a character");
        }
    }

    static String text(byte[] utf8) {
        return new String(utf8, StandardCharsets.UTF_8);
    }

    static boolean isText(byte[] bytes) {
        return Arrays.equals(text(bytes).getBytes(StandardCharsets.UTF_8), bytes);
    }

    private static String encode(byte[] bytes) {
        StringBuilder text = new StringBuilder();
        for (byte value : bytes) {
            char character = (char) (value & 0xFF);
            if (character < 0x80
                    && (Character.isLetterOrDigit(character) || PLAIN.indexOf(character) >= 0)) {
                text.append(character);
            } else {
                text.append('%').append(HEX.charAt(character >> 4)).append(
                        HEX.charAt(character & 0xF));
            }
        }
        return text.toString();
    }

    private static byte[] decode(String encoded) {
        byte[] bytes = new byte[encoded.length()];
        int length = 0;
        for (int i = 0; i < encoded.length(); i++) {
            char character = encoded.charAt(i);
            if (character == '%') {
                bytes[length++] = (byte) Integer.parseInt(encoded.substring(i + 1, i + 3), 16);
                i += 2;
            } else {
                bytes[length++] = (byte) character;
            }
        }
        return Arrays.copyOf(bytes, length);
    }
}
