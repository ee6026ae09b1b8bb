// The native functions that src/main/ets/Store.ets is made of. They expect what it
// hands them: apps use Store.
//
// A bound that is undefined is none; each is followed by whether it is inclusive. A form says how bytes come
// back: 0 not at all, 1 as text, 2 as a Buffer (of Node.js), 3 as a Uint8Array. Functions that end in Sync,
// and those that return no promise, run on the thread of the call.

export type Bytes = string | Uint8Array;

export const create: (plain: boolean) => object;
export const open: (store: object, path: string, logSize: number, createIfMissing: boolean, errorIfExists: boolean,
  autoCompact: boolean, busyTimeout: number) => Promise<void>;
export const openSync: (store: object, path: string, logSize: number, createIfMissing: boolean,
  errorIfExists: boolean, autoCompact: boolean, busyTimeout: number) => void;
export const close: (store: object) => Promise<void>;
export const closeSync: (store: object) => void;

export const get: (store: object, key: Bytes, form: number, snapshot: object | undefined) =>
  Promise<Bytes | undefined>;
export const getSync: (store: object, key: Bytes, form: number, snapshot: object | undefined) => Bytes | undefined;
export const getMany: (store: object, keys: Bytes[], form: number, snapshot: object | undefined) =>
  Promise<(Bytes | undefined)[]>;
export const has: (store: object, key: Bytes, snapshot: object | undefined) => Promise<boolean>;
export const put: (store: object, key: Bytes, value: Bytes, ttl: number) => Promise<void>;
export const putSync: (store: object, key: Bytes, value: Bytes, ttl: number) => void;
export const del: (store: object, key: Bytes) => Promise<void>;
export const delSync: (store: object, key: Bytes) => void;

// Operations as a flat list: key, value, time to live, key, ...; an undefined value deletes.
export const batch: (store: object, operations: (Bytes | number | undefined)[]) => Promise<void>;
export const batchSync: (store: object, operations: (Bytes | number | undefined)[]) => void;
export const clear: (store: object, lower: Bytes | undefined, lowerInclusive: boolean, upper: Bytes | undefined,
  upperInclusive: boolean, reverse: boolean, limit: number, snapshot: object | undefined, logSize: number) =>
  Promise<void>;

export const snapshot: (store: object) => object;
export const snapshotClose: (snapshot: object) => void;

export const iterator: (store: object, lower: Bytes | undefined, lowerInclusive: boolean, upper: Bytes | undefined,
  upperInclusive: boolean, reverse: boolean, keyForm: number, valueForm: number, snapshot: object | undefined) =>
  object;
export const iteratorSeek: (iterator: object, target: Bytes) => void;
// A flat list: key, value, key, ..., and at its end whether there are no more.
export const iteratorRead: (iterator: object, count: number, maxBytes: number) => Promise<(Bytes | boolean)[]>;
export const iteratorReadSync: (iterator: object, count: number, maxBytes: number) => (Bytes | boolean)[];
export const iteratorAbort: (iterator: object) => void;
export const iteratorClose: (iterator: object) => void;

export const flush: (store: object) => Promise<void>;
export const compact: (store: object) => Promise<void>;
export const sync: (store: object) => Promise<void>;
export const checkpoint: (store: object, directory: string) => Promise<void>;
