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
// owner's count is spread over the locks that it owned, and from there over the other threads that
// came to them, in proportion to their entries. The parts are estimates; the sums of the owners are
// exact unless owner lookups were skipped. Of owners whose locks are not known there are no pairs.
//
// Gives {owner, blocked, estimate, locks (indexes that both came to)} for each pair. Of sessions that
// were merged, those of one are not paired with those of another.
function blockingPairs(session) {
  const sums = new Map();
  for (const {session: part, lockIndexes} of session.parts ?? [{session}]) {
    for (const pair of pairsOfSession(part)) {
      const key = JSON.stringify([pair.owner, pair.blocked]);
      const merged = sums.get(key) ?? {...pair, estimate: 0, locks: []};
      merged.estimate += pair.estimate;
      merged.locks.push(...pair.locks.map((index) => lockIndexes?.[index] ?? index));
      sums.set(key, merged);
    }
  }
  return [...sums.values()].map((pair) => ({...pair, locks: [...new Set(pair.locks)]}));
}

function pairsOfSession(session) {
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
  const othersOn = (index) =>
    lockEntries[index] - (entriesOfThread.get(owner.name)?.get(index) ?? 0);
  const usable = ownedLocks(session, owner, entriesOfThread)
    .filter(([index]) => othersOn(index) > 0);
  const whole = sum(usable.map(([, weight]) => weight));
  const pairs = new Map();
  for (const [index, weight] of usable) {
    const blocks = (owner.estimatedTimesOwner * weight) / whole;
    for (const thread of session.locks[index].threads) {
      if (thread.name !== owner.name && thread.entries > 0) {
        const pair = pairs.get(thread.name) ??
          {owner: owner.name, blocked: thread.name, estimate: 0, locks: []};
        pair.estimate += (blocks * thread.entries) / othersOn(index);
        pair.locks.push(index);
        pairs.set(thread.name, pair);
      }
    }
  }
  return [...pairs.values()];
}

// The locks that the thread has owned, with its own entries of each, as far as they are known. The
// stacks of a blocker are those with which it came to locks that it had owned before.
function ownedLocks(session, owner, entriesOfThread) {
  const stacks = new Set(owner.stacks.map(([stack]) => stack));
  return [...entriesOfThread.get(owner.name) ?? []].filter(([index]) =>
    session.locks[index].threads.some((thread) =>
      thread.name === owner.name && thread.stacks.some(([stack]) => stacks.has(stack))));
}

// Locks at which nothing was contended, and only threads that wait for something to do waited: those
// of the VM for references and cleaners, and the agent's own.
function isIdleLock(lock) {
  const kClasses = ['java.lang.ref.ReferenceQueue$Lock', 'java.lang.ref.NativeReferenceQueue$Lock'];
  const kThreads = /^(Reference Handler|Finalizer|Common-Cleaner|Cleaner-\d+|javanativeagent( .*)?)$/;
  return lock.entries === 0 && lock.blockedSeconds === 0 && (kClasses.includes(lock.class) ||
    (lock.threads.length > 0 && lock.threads.every((thread) => kThreads.test(thread.name))));
}

// What the session is called in titles.
const sessionTitle = (session) => (session.parts
  ? `all ${formatNumber(session.parts.length)} sessions` : `session ${session.id} “${session.name}”`);

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

// Puts frames and values, which a report for the page has once each, in place of their numbers.
function unfoldRecords({records, frames, values}) {
  const valuesAt = (numbers) => numbers.map((number) => values[number]);
  for (const value of values) {
    if (value.fields) {
      value.fields = valuesAt(value.fields);
    }
  }
  for (const frame of frames) {
    for (const {member} of kValueKinds) {
      frame[member] = valuesAt(frame[member] ?? []);
    }
  }
  for (const record of records) {
    record.frames = record.frames.map((number) => frames[number]);
  }
}

// Whether a class, or the class of a method, is of the JDK.
const isOfJdk = (name) => /^(java|javax|jdk|sun|com\.sun)\./.test(name);

// How many of a group were thrown, as far as that is known.
const knownCount = (group) => group.thrown ?? group.count;

const placeOfGroup = ({site, otherSites}) => (site ?? '(no frames)') +
  (otherSites > 0 ? ` and ${plural(otherSites, 'other place', 'other places')}` : '');

// What was done with the exceptions that were counted.
const countedWord = (counts) => (counts?.mode === 'made' ? 'made' : 'thrown');

const kValueKinds = [
  {member: 'arguments', title: 'Arguments'},
  {member: 'locals', title: 'Locals'},
  {member: 'fields', title: 'Fields of this'},
  {member: 'threadLocals', title: 'Thread locals'},
];
