// Compiled by `tsc --strict`, never run: what the types allow, and what they refuse.
import { KestrunError, KestrunLevel, KestrunOptions, KestrunSublevel } from 'kestrun'
import { AbstractSnapshot } from 'abstract-level'

interface Setting { colour: string, size: number }

export async function use (): Promise<void> {
  const options: KestrunOptions<string, string> = { logSize: 1 << 20, autoCompact: false, busyTimeout: 100 }
  const db: KestrunLevel = new KestrunLevel('settings', options)
  const location: string = db.location

  await db.open({ createIfMissing: true, errorIfExists: false, logSize: 4096 })
  await db.put('key', location, { ttl: 60 })
  await db.put(Buffer.from('key'), new Uint8Array(3), { keyEncoding: 'buffer', valueEncoding: 'view', ttl: Infinity })
  await db.batch([{ type: 'put', key: 'a', value: '1', ttl: 1 }, { type: 'del', key: 'b' }], { ttl: 2 })
  await db.batch().put('a', '1', { ttl: 3 }).del('b').write()

  const value: string | undefined = await db.get('key')
  const same: string | undefined = db.getSync('key')
  const many: Array<string | undefined> = await db.getMany(['a', 'b'])
  const there: boolean = await db.has('key')
  const snapshot: AbstractSnapshot = db.snapshot()
  for await (const [key, text] of db.iterator({ gte: 'a', limit: 2, reverse: true, snapshot })) key.concat(text)
  for await (const key of db.keys<Buffer>({ keyEncoding: 'buffer' })) key.readUInt8(0)
  await snapshot.close()

  const typed = new KestrunLevel<string, Setting>('settings', { valueEncoding: 'json' })
  const setting: Setting | undefined = await typed.get('theme')
  const sublevel: KestrunSublevel<KestrunLevel<string, Setting>, string, string> = typed.sublevel('session')
  await sublevel.put('token', 'secret', { ttl: 60 })
  await sublevel.sublevel('deeper').batch([{ type: 'put', key: 'a', value: '1', ttl: 1 }])
  await typed.put('theme', { colour: 'green', size: setting?.size ?? 12 })
  await typed.batch([{ type: 'put', key: 'token', value: 'other', sublevel }] as never)

  await db.flush()
  await db.compact()
  await db.sync()
  await db.checkpoint('copy')
  try {
    await db.close()
  } catch (err) {
    const { code, status, statusName } = err as KestrunError
    console.error(code, status, statusName, value, same, many, there)
  }

  // @ts-expect-error a location is needed
  new KestrunLevel()
  // @ts-expect-error a size is a number
  new KestrunLevel('settings', { logSize: '4M' })
  // @ts-expect-error a time to live is a number of seconds
  await db.put('key', 'value', { ttl: '60' })
  // @ts-expect-error deletions have no time to live
  await db.batch([{ type: 'del', key: 'a', ttl: 1 }])
  // @ts-expect-error what JSON is stored as has its type
  await typed.put('theme', 'green')
  // @ts-expect-error the directory has to be named
  await db.checkpoint()
}
