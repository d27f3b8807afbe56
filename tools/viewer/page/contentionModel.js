// What the views of a contention report need of it beyond what it says directly. Times are
// nanoseconds here, moments milliseconds since 1970.

const kStackNotKnown = '(stack not known)';
const kThreadNotKnown = '(thread not known)';

const isContention = (lock) => lock.kind === 'monitor' || lock.kind === 'lock';
const isIdleWait = (lock) => lock.idle;
const isWait = (lock) => !isContention(lock) && !lock.idle;

const threadText = (name) => (name === null ? kThreadNotKnown : named(name));
const siteText = (site) => site ?? kStackNotKnown;

// Locks that are listed separately, and sums of those that are not.
const allLocks = (profile) => [...profile.locks, ...profile.otherLocks];

// Sums have only blocks that have ended.
const totalNanos = (lock) => lock.totalNanos ?? lock.blockedNanos;
const longestNanos = (lock) => lock.longestNanos ?? lock.maxNanos;
const hasLongestStill = (lock) => longestNanos(lock) > lock.maxNanos;

const contentionLength = (profile) => (profile.ended ?? profile.written) - profile.started;

// Why the owner of a lock is not known.
function ownerNoteText(note) {
  const texts = {
    virtual: 'the owner is a virtual thread, which the VM does not name',
    handedOver: 'held by nobody: a fair lock that was promised to the next thread',
    notKept: 'the owner is not known: locks of this kind do not record it',
    changed: 'the owner is not known: it had released the lock, or the JVM did not report it',
    none: 'held by nobody at that moment',
  };
  return Object.hasOwn(texts, note ?? '') ? texts[note]
    : `the owner is not known${note === null ? '' : `: ${note}`}`;
}

const className = (lock) => lock.class ??
  (lock.identity === undefined ? '(classes not told apart)' : '(unloaded class)');

// The profile with the most blocked time; null of none.
const mostContended = (profiles) => profiles.reduce((most, one) =>
  (most === null || one.totals.totalNanos > most.totals.totalNanos ? one : most), null);

// Whether there is something to see in it: time that threads were blocked, or some that are.
const hasContention = (profile) => profile.totals.totalNanos > 0 ||
  profile.totals.stillBlocked > 0 || profile.stuck.length > 0 || profile.deadlocks.length > 0;

// Rows of a table of locks: {name, kind, field, locks, others, entries, nanos, still, longest,
// goesOn, windows (time by start of window)}. A row has all locks of a class and kind when `byClass`.
// With a `selection`, which is {from, to}, entries and time are those of its windows, and rows
// without either are omitted, as are those of sums, which windows do not have.
function lockRows(profile, isWanted, byClass, selection) {
  const groups = new Map();
  allLocks(profile).forEach((lock, index) => {
    const isOther = lock.id === undefined;
    if (isWanted(lock) && !(selection && isOther)) {
      const key = byClass ? `${lock.kind} ${className(lock)}` : String(index);
      const group = groups.get(key) ?? [];
      group.push(lock);
      groups.set(key, group);
    }
  });
  const rows = [...groups.values()].map((locks) => lockRow(locks, selection));
  return selection ? rows.filter((row) => row.nanos > 0 || row.entries > 0) : rows;
}

function lockRow(members, selection) {
  const [first] = members;
  const others = members.filter((lock) => lock.id === undefined);
  const locks = members.filter((lock) => lock.id !== undefined);
  const windows = new Map();
  const selected = {nanos: 0, entries: 0};
  for (const window of locks.flatMap((lock) => lock.windows)) {
    windows.set(window.started, (windows.get(window.started) ?? 0) + window.blockedNanos);
    if (selection && isSelected(window, selection)) {
      selected.nanos += window.blockedNanos;
      selected.entries += window.entries;
    }
  }
  return {
    name: members.length === 1 && locks.length === 1 ? first.name : className(first),
    kind: first.kind, field: members.length === 1 ? first.field ?? null : null, locks, others,
    entries: selection ? selected.entries : sum(members.map((lock) => lock.entries)),
    nanos: selection ? selected.nanos : sum(members.map(totalNanos)),
    still: sum(locks.map((lock) => lock.stillBlocked)),
    longest: maximum(members.map(longestNanos)),
    goesOn: hasLongestStill(members.reduce((most, lock) =>
      (longestNanos(lock) > longestNanos(most) ? lock : most))),
    windows,
  };
}

const isSelected = (window, {from, to}) => window.started >= from && window.started < to;

// Blocked time of the selected windows that no lock of theirs has.
const nanosOfNoLock = (profile, selection) => Math.max(0,
  sum(profile.windows.filter((one) => isSelected(one, selection)).map((one) => one.blockedNanos)) -
  sum(lockRows(profile, isContention, false, selection).map((row) => row.nanos)));

// The pairs of locks from one site of waiters to one site of owners, the most time first. Of different
// classes of locks there are different pairs.
//   waiter, owner  sites; the owner may be null
//   isKnown        whether there is an owner
//   isHolding      whether its site is where it took the lock
//   now            where it was most, if elsewhere
//   waitsFor       id of a lock
//   top            the pair of threads and stacks with the most time
//   and note, locks, nanos, samples, waiterThreads, ownerThreads
function sitePairs(locks) {
  const pairs = new Map();
  for (const lock of locks) {
    for (const pair of lock.pairs) {
      const isHolding = isHeldFrame(pair);
      const key = JSON.stringify([lock.kind, className(lock), pair.waiterSite, pair.ownerSite,
        isHolding, pair.ownerNote, pair.ownerWaitsFor]);
      const sums = pairs.get(key) ?? {
        waiter: pair.waiterSite, owner: pair.ownerSite, isHolding, note: pair.ownerNote,
        waitsFor: pair.ownerWaitsFor, isKnown: hasOwner(pair), locks: new Set(), nanos: 0, samples: 0,
        waiterThreads: new Set(), ownerThreads: new Set(), places: new Map(), top: pair};
      sums.nanos += pair.nanos;
      sums.samples += pair.samples;
      sums.locks.add(lock);
      sums.top = pair.nanos > sums.top.nanos ? pair : sums.top;
      sums.waiterThreads.add(pair.waiterThread);
      if (hasOwner(pair)) {
        sums.ownerThreads.add(pair.ownerThread);
      }
      sums.places.set(pair.ownerNow, (sums.places.get(pair.ownerNow) ?? 0) + pair.nanos);
      pairs.set(key, sums);
    }
  }
  return [...pairs.values()].map((pair) => ({...pair, now: mostOf(pair.places)}))
    .sort((a, b) => b.nanos - a.nanos);
}

// Whether the site of the owner is where it took the lock.
const isHeldFrame = ({owner, holdingFrame}) =>
  owner !== null && holdingFrame !== null && holdingFrame < owner.length;

const hasOwner = (pair) => pair.ownerThread !== null || pair.owner !== null;

const mostOf = (amounts) => [...amounts].reduce((most, one) => (one[1] > most[1] ? one : most))[0];

// What the owners of a pair wait for themselves, and so on: [{lock (null when it is not in the
// report), id, owner, ownerThread, isHolding, isAgain}]. Ends with a lock that was there before.
function chainOf(profile, pair) {
  const byId = new Map(profile.locks.map((lock) => [lock.id, lock]));
  const met = new Set(pair.locks.size === 1 ? [[...pair.locks][0].id] : []);
  const chain = [];
  let waiters = pair.ownerThreads;
  for (let id = pair.waitsFor; id !== null;) {
    const link = {id, lock: byId.get(id) ?? null, owner: null, ownerThread: null, isHolding: false,
      isAgain: met.has(id)};
    chain.push(link);
    met.add(id);
    const held = waiters;
    const next = link.isAgain ? null : link.lock?.pairs.find((one) => one.waiterThread !== null &&
      held.has(one.waiterThread) && hasOwner(one));
    if (next) {
      link.owner = next.ownerSite;
      link.ownerThread = next.ownerThread;
      link.isHolding = isHeldFrame(next);
      waiters = new Set([next.ownerThread]);
    }
    id = next?.ownerWaitsFor ?? null;
  }
  return chain;
}

// The stacks of the pairs of locks as StackTree takes them, with the `weights` of each: `side` is
// "waiter" or "owner", `weigh(pair)` gives the weight. A frame is a method, or with `withLines` a line
// of it. Time of an owner that is not known has a frame that tells why.
function pairStacks(locks, side, weigh, withLines) {
  const numbers = new Map();
  const stacks = new Map();
  const frameNumber = (name) => {
    if (!numbers.has(name)) {
      numbers.set(name, numbers.size);
    }
    return numbers.get(name);
  };
  const framesOf = (pair) => {
    if (side === 'owner' && !hasOwner(pair)) {
      return [`(${ownerNoteText(pair.ownerNote)})`];
    }
    return pair[side] === null || withLines ? pair[side] : pair[side].map(methodName);
  };
  for (const pair of locks.flatMap((lock) => lock.pairs)) {
    const frames = framesOf(pair)?.map(frameNumber) ?? null;
    const key = frames === null ? '' : frames.join();
    const stack = stacks.get(key) ?? {frames, weight: 0};
    stack.weight += weigh(pair);
    stacks.set(key, stack);
  }
  const all = [...stacks.values()];
  return {
    session: {frames: [...numbers.keys()], stacks: all, unknownStack: kStackNotKnown},
    weights: Float64Array.from(all, (stack) => stack.weight),
  };
}
