#!/usr/bin/env python3
"""The store in Python, through the C interface of kestrun/c.h and the standard library's ctypes.

    settings.py STORE

KESTRUN_LIBRARY names libKestrun2.so where the loader does not find it by itself.
"""

import ctypes
import ctypes.util
import os
import sys

library = ctypes.CDLL(os.environ.get("KESTRUN_LIBRARY") or ctypes.util.find_library("Kestrun2"))

Handle = ctypes.c_void_p
Size = ctypes.c_size_t
FOREVER = 4294967295  # KESTRUN_TTL_FOREVER

# Without their types, ctypes would pass addresses as 32-bit integers.
for name, result, *arguments in [
    ("kestrun_open", ctypes.c_uint32, ctypes.c_char_p, Handle, ctypes.POINTER(Handle)),
    ("kestrun_close", None, Handle),
    ("kestrun_put", ctypes.c_uint32, Handle, ctypes.c_char_p, Size, ctypes.c_uint32, ctypes.c_char_p, Size),
    ("kestrun_get", ctypes.c_uint32, Handle, ctypes.c_char_p, Size, ctypes.POINTER(Handle), ctypes.POINTER(Size)),
    ("kestrun_delete", ctypes.c_uint32, Handle, ctypes.c_char_p, Size),
    ("kestrun_batch_create", Handle),
    ("kestrun_batch_destroy", None, Handle),
    ("kestrun_batch_put", ctypes.c_uint32, Handle, ctypes.c_char_p, Size, ctypes.c_uint32, ctypes.c_char_p, Size),
    ("kestrun_write", ctypes.c_uint32, Handle, Handle),
    ("kestrun_snapshot_take", ctypes.c_uint32, Handle, ctypes.POINTER(Handle)),
    ("kestrun_snapshot_release", None, Handle),
    ("kestrun_cursor_create", ctypes.c_uint32, Handle, ctypes.c_char_p, Size, ctypes.c_char_p, Size,
     ctypes.POINTER(Handle)),
    ("kestrun_cursor_destroy", None, Handle),
    ("kestrun_cursor_seek_to_first", None, Handle),
    ("kestrun_cursor_next", None, Handle),
    ("kestrun_cursor_valid", ctypes.c_int, Handle),
    ("kestrun_cursor_status", ctypes.c_uint32, Handle),
    ("kestrun_cursor_key", Handle, Handle, ctypes.POINTER(Size)),
    ("kestrun_cursor_value", ctypes.c_uint32, Handle, ctypes.POINTER(Handle), ctypes.POINTER(Size)),
    ("kestrun_status_name", ctypes.c_char_p, ctypes.c_uint32),
    ("kestrun_status_text", ctypes.c_char_p, ctypes.c_uint32),
    ("kestrun_free", None, Handle),
]:
    function = getattr(library, name)
    function.restype, function.argtypes = result, arguments


class StoreError(Exception):
    """A status other than success; `name` is that of kestrun/status.h."""

    def __init__(self, status):
        self.name = library.kestrun_status_name(status).decode()
        super().__init__(f"{self.name}: {library.kestrun_status_text(status).decode()}")


def check(status):
    if status != 0:
        raise StoreError(status)


class Store:
    """Bytes under bytes. Use it in a `with`."""

    def __init__(self, path):
        self._handle = Handle()
        check(library.kestrun_open(os.fsencode(path), None, ctypes.byref(self._handle)))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        library.kestrun_close(self._handle)
        self._handle = Handle()

    def put(self, key, value, ttl=FOREVER):
        check(library.kestrun_put(self._handle, key, len(key), ttl, value, len(value)))

    def delete(self, key):
        check(library.kestrun_delete(self._handle, key, len(key)))

    def get(self, key):
        """The value, or None unless the key is alive."""
        value, size = Handle(), Size()
        check(library.kestrun_get(self._handle, key, len(key), ctypes.byref(value), ctypes.byref(size)))
        if not value:
            return None
        try:
            return ctypes.string_at(value, size.value)
        finally:
            library.kestrun_free(value)

    def write(self, entries):
        """Stores all entries of a dictionary or none."""
        batch = library.kestrun_batch_create()
        if not batch:
            raise MemoryError
        try:
            for key, value in entries.items():
                check(library.kestrun_batch_put(batch, key, len(key), FOREVER, value, len(value)))
            check(library.kestrun_write(self._handle, batch))
        finally:
            library.kestrun_batch_destroy(batch)

    def items(self, start=b"", end=b""):
        """The entries from `start` up to and not including `end`, in order, as they are at the first step."""
        snapshot, cursor, size, value = Handle(), Handle(), Size(), Handle()
        check(library.kestrun_snapshot_take(self._handle, ctypes.byref(snapshot)))
        try:
            check(library.kestrun_cursor_create(snapshot, start, len(start), end, len(end), ctypes.byref(cursor)))
        finally:
            library.kestrun_snapshot_release(snapshot)
        try:
            library.kestrun_cursor_seek_to_first(cursor)
            while library.kestrun_cursor_valid(cursor):
                key = ctypes.string_at(library.kestrun_cursor_key(cursor, ctypes.byref(size)), size.value)
                check(library.kestrun_cursor_value(cursor, ctypes.byref(value), ctypes.byref(size)))
                yield key, ctypes.string_at(value, size.value)
                library.kestrun_cursor_next(cursor)
            check(library.kestrun_cursor_status(cursor))
        finally:
            library.kestrun_cursor_destroy(cursor)


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: settings.py STORE")
    with Store(sys.argv[1]) as store:
        store.put(b"colour", b"green")
        store.write({b"font": b"serif", b"size": b"12", b"zoom": b""})
        store.delete(b"size")
        try:
            store.put(b"", b"a key has at least one byte")
        except StoreError as refused:
            print("refused with", refused.name, file=sys.stderr)
        settings = {key.decode(): value.decode() for key, value in store.items(b"colour", b"zoom\0")}
        print(f"{settings}, and size is {store.get(b'size')}", file=sys.stderr)


if __name__ == "__main__":
    main()
