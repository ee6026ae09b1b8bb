import {
  AbstractBatchDelOperation,
  AbstractBatchOptions,
  AbstractBatchPutOperation,
  AbstractChainedBatch,
  AbstractChainedBatchPutOptions,
  AbstractDatabaseOptions,
  AbstractLevel,
  AbstractOpenOptions,
  AbstractPutOptions,
  AbstractSublevel,
  AbstractSublevelOptions
} from 'abstract-level'

/** How keys and values are handed to the native side, without being converted. */
type Format = string | Buffer | Uint8Array

/**
 * An {@link AbstractLevel} database in a Kestrun store: a directory that several handles, threads and processes may
 * use at once.
 *
 * @template KDefault The type of keys where an operation says nothing else.
 * @template VDefault The type of values where an operation says nothing else.
 */
export class KestrunLevel<KDefault = string, VDefault = string> extends AbstractLevel<Format, KDefault, VDefault> {
  /**
   * Touches nothing: the store is opened, and made if need be, by {@link open} or the first operation.
   *
   * @param location The store's directory. Its parent must exist.
   * @param options Options of the store are taken by {@link open}, whose own ones win.
   */
  constructor (location: string, options?: KestrunOptions<KDefault, VDefault> | undefined)

  /** The directory that was passed to the constructor. */
  get location (): string

  open (): Promise<void>
  open (options: KestrunOpenOptions): Promise<void>

  put (key: KDefault, value: VDefault): Promise<void>
  put<K = KDefault, V = VDefault> (key: K, value: V, options: KestrunPutOptions<K, V>): Promise<void>

  batch (operations: Array<KestrunBatchOperation<typeof this, KDefault, VDefault>>): Promise<void>
  batch<K = KDefault, V = VDefault> (
    operations: Array<KestrunBatchOperation<typeof this, K, V>>,
    options: KestrunBatchOptions<K, V>
  ): Promise<void>
  batch (): KestrunChainedBatch<typeof this, KDefault, VDefault>

  sublevel (name: string | string[]): KestrunSublevel<typeof this, string, string>
  sublevel<K = string, V = string> (
    name: string | string[],
    options: AbstractSublevelOptions<K, V>
  ): KestrunSublevel<typeof this, K, V>

  /** Writes the entries of the log to a new block and empties the log. */
  flush (): Promise<void>

  /** Merges log and blocks into one block; what is deleted or expired goes. */
  compact (): Promise<void>

  /** Brings everything acknowledged so far, by any process, to the disk. */
  sync (): Promise<void>

  /**
   * Makes a consistent copy of the store.
   *
   * @param directory A new directory, which opens as a store.
   */
  checkpoint (directory: string): Promise<void>
}

/** Options of {@link KestrunLevel.open}. */
export interface KestrunOpenOptions extends AbstractOpenOptions {
  /**
   * Bytes of the log: an integer from 129 to 4294967295. The largest entry or batch takes 128 less. A log that is
   * longer keeps its length.
   *
   * @defaultValue `4194304`
   */
  logSize?: number | undefined

  /**
   * Whether a thread of the store merges its blocks after flushes.
   *
   * @defaultValue `true`
   */
  autoCompact?: boolean | undefined

  /**
   * Milliseconds that a lock is tried for before an operation fails with `LEVEL_LOCKED`.
   *
   * @defaultValue `5000`
   */
  busyTimeout?: number | undefined
}

/** Options of the constructor of {@link KestrunLevel}. */
export interface KestrunOptions<K, V>
  extends AbstractDatabaseOptions<K, V>, Omit<KestrunOpenOptions, 'passive'> {}

/** How long what is written lives. */
export interface TimeToLive {
  /**
   * Seconds after which the entry is gone; a part of a second counts as a whole one. What is more than 4294967295,
   * `Infinity` included, is for ever.
   *
   * @defaultValue `Infinity`
   */
  ttl?: number | undefined
}

/** Options of {@link KestrunLevel.put}. */
export interface KestrunPutOptions<K, V> extends AbstractPutOptions<K, V>, TimeToLive {}

/** Options of {@link KestrunLevel.batch}; a `ttl` is that of every operation that has none of its own. */
export interface KestrunBatchOptions<K, V> extends AbstractBatchOptions<K, V>, TimeToLive {}

/** A write of a batch. */
export interface KestrunBatchPutOperation<TDatabase, K, V>
  extends AbstractBatchPutOperation<TDatabase, K, V>, TimeToLive {}

/** An operation of a batch. */
export type KestrunBatchOperation<TDatabase, K, V> =
  KestrunBatchPutOperation<TDatabase, K, V> | AbstractBatchDelOperation<TDatabase, K>

/** Options of {@link KestrunChainedBatch.put}. */
export interface KestrunChainedBatchPutOptions<TDatabase, K, V>
  extends AbstractChainedBatchPutOptions<TDatabase, K, V>, TimeToLive {}

/** A batch that is put together step by step. */
export interface KestrunChainedBatch<TDatabase, KDefault, VDefault>
  extends AbstractChainedBatch<TDatabase, KDefault, VDefault> {
  put (key: KDefault, value: VDefault): this
  put<K = KDefault, V = VDefault> (
    key: K,
    value: V,
    options: KestrunChainedBatchPutOptions<TDatabase, K, V>
  ): this
}

/** A section of a database with keys and encodings of its own. */
export interface KestrunSublevel<TDatabase, KDefault, VDefault>
  extends AbstractSublevel<TDatabase, Format, KDefault, VDefault> {
  put (key: KDefault, value: VDefault): Promise<void>
  put<K = KDefault, V = VDefault> (key: K, value: V, options: KestrunPutOptions<K, V>): Promise<void>

  batch (operations: Array<KestrunBatchOperation<any, KDefault, VDefault>>): Promise<void>
  batch<K = KDefault, V = VDefault> (
    operations: Array<KestrunBatchOperation<any, K, V>>,
    options: KestrunBatchOptions<K, V>
  ): Promise<void>
  batch (): KestrunChainedBatch<any, KDefault, VDefault>

  sublevel (name: string | string[]): KestrunSublevel<any, string, string>
  sublevel<K = string, V = string> (
    name: string | string[],
    options: AbstractSublevelOptions<K, V>
  ): KestrunSublevel<any, K, V>
}

/** An error of the store. */
export interface KestrunError extends Error {
  /** A code of abstract-level, such as `LEVEL_CORRUPTION`, or one of the store, such as `KESTRUN_WAL_FULL`. */
  code: string
  /** The status of the store. */
  status: number
  /** The name of that status, such as `kStatusWalFull`. */
  statusName: string
}
