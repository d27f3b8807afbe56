// The flame graph of blocked time: by the stacks of those who waited, or of the owners meanwhile.

const contentionFlameView = {
  id: 'blocked',
  title: 'Blocked time',
  isIn: (report) => (report.contention ?? []).some((one) => one.locks.some(isBlocking)),

  build(report) {
    const reports = report.contention;
    const profile = el('select', null,
      reports.map((one, index) => el('option', {value: index}, contentionTitle(one))));
    const holder = el('span');
    const side = el('select', null, el('option', {value: 'waiter'}, 'those who waited'),
      el('option', {value: 'owner'}, 'the owners meanwhile'));
    const innermostFirst = el('input', {type: 'checkbox'});
    const graph = flameGraph((nanos) => `${formatMillis(nanos)} ms`);
    const note = el('p', {class: 'note'});
    let lock = null;
    let locks = [];

    const rebuild = () => {
      const chosen = lock.value === '' ? locks : [locks[Number(lock.value)]];
      const {session, counts, without, whole} = blockedStacks(chosen, side.value);
      graph.setTree(new StackTree(session, counts, without, innermostFirst.checked));
      graph.draw();
      note.textContent = side.value === 'owner'
        ? 'Each box is a method of a thread that held the lock, as wide as the time that others were ' +
          'blocked by it, from samples. Where the owner is not known, the box is the reason.'
        : `Each box is a method that led to a lock, as wide as the time that threads were blocked ` +
          `there: ${formatMillis(whole)} ms in all. Samples show the stacks; time that they do not ` +
          `stand for is ${kNoStack}.`;
    };
    const showLocks = () => {
      const one = reports[Number(profile.value)];
      locks = [...one.locks, ...one.otherLocks].filter(isBlocking);
      lock = select('All monitors and locks', locks.map(lockName));
      lock.addEventListener('change', rebuild);
      holder.replaceChildren(field('Lock', lock));
      rebuild();
    };
    for (const control of [side, innermostFirst]) {
      control.addEventListener('change', rebuild);
    }
    profile.addEventListener('change', showLocks);

    return {
      element: panel('Blocked time by stack', note,
        el('div', {class: 'controls'}, reports.length > 1 && field('Profile', profile), holder,
          field('Stacks of', side),
          el('label', {class: 'check'}, innermostFirst, ' Innermost method first')),
        graph.element),
      open() {
        if (lock === null) {
          showLocks();
        }
        graph.draw();
      },
      redraw: () => graph.draw(),
    };
  },
};

// The stacks of the pairs of these locks in the form that StackTree takes, weighed by nanoseconds.
function blockedStacks(locks, side) {
  const frames = new Map();  // name to index
  const stacks = new Map();  // joined indexes to {frames, nanos}
  const frameOf = (name) => {
    if (!frames.has(name)) {
      frames.set(name, frames.size);
    }
    return frames.get(name);
  };
  let without = 0;
  for (const lock of locks) {
    const sampled = sum(lock.pairs.map((pair) => pair.nanos));
    without += side === 'waiter' ? Math.max(0, timeOf(lock) - sampled) : 0;
    for (const pair of lock.pairs) {
      const names = pair[side] ?? [side === 'owner' && pair.ownerThread === null
        ? `(${ownerNote(pair.ownerNote)})` : '(stack not known)'];
      const indexes = names.map(frameOf);
      const key = indexes.join();
      const stack = stacks.get(key) ?? {frames: indexes, nanos: 0};
      stack.nanos += pair.nanos;
      stacks.set(key, stack);
    }
  }
  const all = [...stacks.values()];
  return {session: {frames: [...frames.keys()], stacks: all}, counts: all.map((one) => one.nanos),
    without, whole: without + sum(all.map((one) => one.nanos))};
}
