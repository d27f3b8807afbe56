// What the views need of the report beyond what it says directly.

const kUnknownStack = '(stack not in the stack file)';
const kNoStack = '(no stack recorded)';

// How often each stack of the session led to a contended entry: on one lock (index) or all (-1), by
// threads of one name or all (null).
function stackCounts(session, lockIndex, threadName) {
  const counts = new Float64Array(session.stacks.length);
  const locks = lockIndex < 0 ? session.locks : [session.locks[lockIndex]];
  for (const lock of locks) {
    for (const thread of lock.threads) {
      if (threadName === null || thread.name === threadName) {
        for (const [stack, count] of thread.stacks) {
          counts[stack] += count;
        }
      }
    }
  }
  return counts;
}

// The contended entries that the report has no stack for, of the same locks and threads; as the
// exports count them.
function entriesWithoutStack(session, lockIndex, threadName) {
  const locks = lockIndex < 0 ? session.locks : [session.locks[lockIndex]];
  return sum(locks.map((lock) => {
    let without = 0;
    let ofThreads = 0;
    for (const thread of lock.threads) {
      const ofStacks = sum(thread.stacks.map(([, count]) => count));
      if (threadName === null || thread.name === threadName) {
        without += Math.max(0, thread.entries - ofStacks);
      }
      ofThreads += Math.max(thread.entries, ofStacks);
    }
    return without + (threadName === null ? Math.max(0, lock.entries - ofThreads) : 0);
  }));
}

// The names of a stack's frames, the contended one first.
function frameNames(session, stackIndex) {
  const frames = session.stacks[stackIndex].frames;
  return frames === null ? [kUnknownStack] : frames.map((frame) => session.frames[frame]);
}

// The stacks seen on a lock as [stack index, count], the most frequent first.
function stacksOfLock(session, lockIndex) {
  const counts = new Map();
  for (const thread of session.locks[lockIndex].threads) {
    for (const [stack, count] of thread.stacks) {
      counts.set(stack, (counts.get(stack) ?? 0) + count);
    }
  }
  return [...counts].sort((a, b) => b[1] - a[1]);
}

// Whether owner lookups were skipped, so that the counts of owners are only a share.
const ownersAreSampled = ({ownerLookups}) => ownerLookups !== null && ownerLookups.leftOut > 0;

// Whom each owner blocked, as far as a report shows it. It has how often each thread owned a lock
// that another one came to, over all locks, and how often each thread came to each lock. So each
// owner's count is spread over its locks, and from there over the other threads that came to them,
// in proportion to their entries. The parts are estimates; the sums of the owners are exact unless
// owner lookups were skipped.
//
// Gives {owner, blocked, estimate, locks (indexes that both came to), spread} for each pair;
// `spread` when the owner itself never blocked, so that it is not known which locks it owned.
function blockingPairs(session) {
  const entriesOfThread = new Map();  // name to Map of lock index to entries
  session.locks.forEach((lock, index) => {
    for (const thread of lock.threads) {
      if (thread.entries > 0) {
        const entries = entriesOfThread.get(thread.name) ?? new Map();
        entriesOfThread.set(thread.name, entries.set(index, thread.entries));
      }
    }
  });
  const lockEntries = session.locks.map((lock) => sum(lock.threads.map((t) => t.entries)));
  return session.blockers.flatMap((owner) =>
    pairsOfOwner(session, owner, entriesOfThread, lockEntries));
}

function pairsOfOwner(session, owner, entriesOfThread, lockEntries) {
  const own = ownedLocks(session, owner, entriesOfThread);
  const spread = own === null;
  const weights = own ?? new Map(lockEntries.map((entries, index) => [index, entries]));
  const othersOn = (index) =>
    lockEntries[index] - (entriesOfThread.get(owner.name)?.get(index) ?? 0);
  const usable = [...weights].filter(([index]) => othersOn(index) > 0);
  const whole = sum(usable.map(([, weight]) => weight));
  const pairs = new Map();
  for (const [index, weight] of usable) {
    const blocks = (owner.estimatedTimesOwner * weight) / whole;
    for (const thread of session.locks[index].threads) {
      if (thread.name !== owner.name && thread.entries > 0) {
        const pair = pairs.get(thread.name) ??
          {owner: owner.name, blocked: thread.name, estimate: 0, locks: [], spread};
        pair.estimate += (blocks * thread.entries) / othersOn(index);
        if (!spread) {
          pair.locks.push(index);
        }
        pairs.set(thread.name, pair);
      }
    }
  }
  return [...pairs.values()];
}

// The locks that the thread can have owned, with its own entries of each; null when unknown. The
// stacks of a blocker are those with which it came to locks that it had owned before.
function ownedLocks(session, owner, entriesOfThread) {
  const entries = entriesOfThread.get(owner.name);
  if (!entries) {
    return null;
  }
  const stacks = new Set(owner.stacks.map(([stack]) => stack));
  const shown = [...entries].filter(([index]) => session.locks[index].threads.some((thread) =>
    thread.name === owner.name && thread.stacks.some(([stack]) => stacks.has(stack))));
  return new Map(shown.length > 0 ? shown : entries);
}

// All texts of an exception record in lower case, for searching.
function searchText(record) {
  const texts = [record.class, record.message, record.thread, record.time];
  const addValues = (values) => {
    for (const value of values ?? []) {
      texts.push(value.name, value.value);
      addValues(value.fields);
    }
  };
  for (const frame of record.frames) {
    texts.push(frame.method, `${frame.file}:${frame.line}`);
    for (const kind of kValueKinds) {
      addValues(frame[kind.member]);
    }
  }
  return texts.filter((text) => text !== null && text !== undefined).join('\n').toLowerCase();
}

const kValueKinds = [
  {member: 'arguments', title: 'Arguments'},
  {member: 'locals', title: 'Locals'},
  {member: 'fields', title: 'Fields of this'},
  {member: 'threadLocals', title: 'Thread locals'},
];
