// The flame graphs of a contention profile: what threads did that were blocked, and what those did
// that held the locks meanwhile.

const blockedFlameView = {
  id: 'blockedstacks',
  title: 'Blocked stacks',
  isIn: (report, session, profile) => Boolean(profile),

  build(report, session, profile) {
    const choices = [
      ['All monitors and locks', allLocks(profile).filter(isContention)],
      ['All waits that are not idle', allLocks(profile).filter(isWait)],
      ...allLocks(profile).filter((lock) => lock.pairs.length > 0)
        .map((lock) => [lockText(lock), [lock]]),
    ];
    const lock = el('select', null, choices.map(([name], index) =>
      el('option', {value: index}, name)));
    const side = el('select', null, el('option', {value: 'waiter'}, 'Threads that were blocked'),
      el('option', {value: 'owner'}, 'Threads that held the lock'));
    const weight = el('select', null, el('option', {value: 'nanos'}, 'Blocked time'),
      el('option', {value: 'samples'}, 'Samples'));
    const withLines = el('input', {type: 'checkbox'});
    const innermostFirst = el('input', {type: 'checkbox'});
    const known = el('p', {class: 'note', id: 'sampled-time'});
    const amountText = (amount) => (weight.value === 'nanos' ? formatNanos(amount)
      : plural(amount, 'sample', 'samples'));
    const flame = searchedFlame({methodTitles: ['Ends here', 'In stacks of'], amountText,
      amountCell: (amount) => (weight.value === 'nanos' ? `${formatMillis(amount)} ms`
        : formatNumber(amount))});
    let isShown = false;

    const rebuild = () => {
      isShown = true;
      const locks = choices[Number(lock.value)][1];
      const {session: stacks, weights} = pairStacks(locks, side.value,
        (pair) => pair[weight.value], withLines.checked);
      flame.setTree(new StackTree(stacks, weights, 0, innermostFirst.checked));
      known.textContent = `The samples of these locks stand for ${
        formatNanos(sum(locks.flatMap((one) => one.pairs.map((pair) => pair.nanos))))}, of ${
        formatNanos(sum(locks.map(totalNanos)))} that threads spent there.`;
    };
    for (const control of [lock, side, weight, withLines, innermostFirst]) {
      control.addEventListener('change', rebuild);
    }
    return {
      element: el('div', null, panel('Blocked time by stack',
        el('p', {class: 'note'}, 'Each box is a method, as wide as the time that threads were blocked ' +
          'while it was on the stack: on that of the blocked thread, or on that of the owner that ' +
          'kept it so. Stacks are known from samples; entries are counted by lock and not by stack. ' +
          'Click a box or press Enter to zoom, Escape to go back; the arrow keys move.'),
        el('div', {class: 'controls'}, field('Stacks of', side), field('Width', weight),
          field('Lock', lock), flame.search,
          el('label', {class: 'check'}, withLines, ' Line numbers'),
          el('label', {class: 'check'}, innermostFirst, ' Innermost method first')),
        known, flame.element)),
      open() {
        if (!isShown) {
          rebuild();
        }
        flame.draw();
      },
      redraw: () => flame.draw(),
    };
  },
};
