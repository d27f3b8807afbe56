// Several lock sessions as one.

// The sum of the sessions, as a session with `parts`: {session, lockIndexes (in the sum, by those of
// the session)}. A lock, thread, stack or owner of the same name in several sessions is one; the
// minutes of one session come after those of another.
const mergedSession = (sessions) => new SessionMerger().merge(sessions);

class SessionMerger {
  merge(sessions) {
    this.frames = new Numbering();
    this.stacks = new Numbering();  // by hash
    this.locks = new Map();
    this.blockers = new Map();
    this.minutes = 0;
    sessions.forEach((session) => this.add(session));
    const locks = [...this.locks.values()];
    for (const lock of locks) {
      lock.graph = padded(lock.graph, this.minutes);
      lock.threads = byWeight([...lock.threads.values()]).map((thread) =>
        ({...thread, stacks: [...thread.stacks]}));
    }
    const ranked = byWeight(locks);
    const indexOf = new Map(ranked.map((lock, index) => [lock.name, index]));
    const blockers = [...this.blockers.values()].map((one) => ({...one, stacks: [...one.stacks]}));
    const merged = {
      id: null, name: '', source: '', locks: ranked, blockers,
      parts: sessions.map((session) => ({session,
        lockIndexes: session.locks.map((lock) => indexOf.get(lock.name))})),
      totals: {locks: ranked.length, ...sumsOf(ranked, kLockTimes)},
      ownerLookups: mergedLookups(sessions),
      frames: this.frames.values, stacks: this.stacks.values,
    };
    merged.threads = threadSums(merged);
    merged.totals.threads = merged.threads.length;
    merged.sites = siteSums(merged);
    merged.stacksOfNoLock = stacksOfNoLockIn(sessions, this.stacks);
    return merged;
  }

  add(session) {
    const frames = session.frames.map((name) => this.frames.of(name, name));
    const stacks = session.stacks.map(({hash, frames: ofStack}) => this.stacks.of(hash,
      {hash, frames: ofStack && ofStack.map((frame) => frames[frame])}));
    for (const lock of session.locks) {
      const {threads, graph, ...rest} = lock;
      const sums = addInto(this.locks, lock, kLockTimes, () => ({...rest, ...zeros(kLockTimes),
        graph: [], threads: new Map()}));
      sums.graph = [...padded(sums.graph, this.minutes), ...graph];
      for (const thread of threads) {
        const {stacks: uses, ...one} = thread;
        addUses(addInto(sums.threads, thread, kLockTimes, () =>
          ({...one, ...zeros(kLockTimes), stacks: new Map()})), uses, stacks);
      }
    }
    for (const owner of session.blockers) {
      const {stacks: uses, ...one} = owner;
      addUses(addInto(this.blockers, owner, kOwnerTimes, () =>
        ({...one, ...zeros(kOwnerTimes), stacks: new Map()})), uses, stacks);
    }
    this.minutes += maximum(session.locks.map((lock) => lock.graph.length));
  }
}

const kLockTimes = ['entries', 'blockedSeconds', 'waitedSeconds'];
const kOwnerTimes = ['timesOwner', 'estimatedTimesOwner', 'blockingPeriods', 'blockingSeconds'];

// Numbers for keys from 0 on, in the order in which they turn up, each with the value that came first.
class Numbering {
  constructor() {
    this.numbers = new Map();
    this.values = [];
  }

  of(key, value) {
    if (!this.numbers.has(key)) {
      this.numbers.set(key, this.values.length);
      this.values.push(value);
    }
    return this.numbers.get(key);
  }
}

// Adds the members of `one` to those of the same name in `sums`; one that is new is made with them 0.
function addInto(sums, one, members, make) {
  const found = sums.get(one.name) ?? make();
  members.forEach((member) => { found[member] += one[member]; });
  sums.set(one.name, found);
  return found;
}

const zeros = (members) => Object.fromEntries(members.map((member) => [member, 0]));

function addUses(target, uses, stacks) {
  for (const [stack, count] of uses) {
    target.stacks.set(stacks[stack], (target.stacks.get(stacks[stack]) ?? 0) + count);
  }
}

const padded = (values, length) =>
  [...values, ...Array(Math.max(0, length - values.length)).fill(0)];

const sumsOf = (all, members) => Object.fromEntries(members.map((member) =>
  [member, sum(all.map((one) => one[member]))]));

// Blocked time first, then waited time, then entries.
const byWeight = (all) => [...all].sort((a, b) => b.blockedSeconds - a.blockedSeconds ||
  b.waitedSeconds - a.waitedSeconds || b.entries - a.entries);

function mergedLookups(sessions) {
  const all = sessions.map((session) => session.ownerLookups).filter(Boolean);
  return all.length === 0 ? null
    : {perSecond: maximum(all.map((one) => one.perSecond)), ...sumsOf(all, ['made', 'leftOut'])};
}

// The threads over all locks, with what they did as owners.
function threadSums({locks, blockers}) {
  const sums = new Map();
  const none = (name) => () => ({name, locks: 0,
    ...zeros([...kLockTimes, ...kOwnerTimes])});
  for (const thread of locks.flatMap((lock) => lock.threads)) {
    addInto(sums, thread, kLockTimes, none(thread.name)).locks++;
  }
  for (const owner of blockers) {
    addInto(sums, owner, kOwnerTimes, none(owner.name));
  }
  return byWeight([...sums.values()]);
}

// The methods in which threads came to a lock, the most entries first.
function siteSums({locks, stacks, frames}) {
  const sums = new Map();
  locks.forEach((lock, index) => {
    for (const [stack, count] of lock.threads.flatMap((thread) => thread.stacks)) {
      const top = stacks[stack].frames?.[0];
      const method = top === undefined ? null : frames[top];
      const site = sums.get(method) ?? {method, entries: 0, stacks: new Set(), locks: new Set()};
      site.entries += count;
      site.stacks.add(stack);
      site.locks.add(index);
      sums.set(method, site);
    }
  });
  return [...sums.values()].map((site) =>
    ({...site, stacks: site.stacks.size, locks: [...site.locks]}))
    .sort((a, b) => b.entries - a.entries);
}

// Those that are of no lock in one session may be of one in another: then they are of no lock still.
const stacksOfNoLockIn = (sessions, stacks) => [...new Set(sessions.flatMap((session) =>
  session.stacksOfNoLock.map((index) => stacks.of(session.stacks[index].hash, null))))];
