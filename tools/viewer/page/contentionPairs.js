// Who blocks whom in a contention profile: pairs of the site that waited and the site that held the
// lock, each seen in samples.

const pairView = {
  id: 'pairs',
  title: 'Waiters and owners',
  isIn: (report, session, profile) => Boolean(profile),

  build(report, session, profile) {
    const pairs = sitePairs(allLocks(profile).filter(isContention));
    const known = pairs.filter((pair) => pair.isKnown);
    const whole = sum(pairs.map((pair) => pair.nanos));
    return {element: el('div', null,
      panel('Who blocks whom',
        el('p', {class: 'note'}, 'Each pair was seen: a thread was blocked in the one place while ' +
          'another one held the lock that it took in the other. Times are what the samples stand for: ' +
          `${formatMillis(whole)} ms in all, of ${formatMillis(profile.totals.totalNanos)} ms that ` +
          'were blocked.'),
        known.length > 0 ? sitePairTable(known, whole)
          : el('p', {class: 'note'}, 'No sample shows the owner of a lock.')),
      chainPanel(profile, known, whole),
      unknownOwners(pairs, whole))};
  },
};

const lockText = (lock) => (lock.name ?? `${className(lock)} (others)`) +
  (lock.field ? `, ${shortName(lock.field, 2)}` : '');
const someOf = (all, text) => (all.size === 0 ? '' : text([...all][0]) +
  (all.size > 1 ? ` and ${formatNumber(all.size - 1)} more` : ''));

// The pairs as a table; the one that is chosen shows its stacks below.
function sitePairTable(pairs, whole) {
  const stacks = el('div', {id: 'pair-stacks'});
  const table = filteredTable({caption: 'Pairs of waiting and holding site', rows: pairs, sortBy: 2,
    onSelect: (row) => {
      stacks.replaceChildren(bothStacks(row));
      announce('Both stacks below');
    },
    columns: [
      {title: 'Waited in', wide: true, value: (row) => siteText(row.waiter),
        show: (row) => javaName(siteText(row.waiter))},
      {title: 'Held by', wide: true, kept: true, value: (row) => siteText(row.owner),
        show: (row) => javaName(siteText(row.owner))},
      millisColumn('Blocked ms', (row) => row.nanos),
      {title: 'Share', numeric: true, value: (row) => row.nanos,
        show: (row) => formatShare(row.nanos, whole),
        share: (row) => (whole > 0 ? row.nanos / whole : 0)},
      {title: 'Owner was in', value: (row) => row.now ?? '',
        show: (row) => (row.now === null ? '' : javaName(row.now))},
      {title: 'Lock', value: (row) => someOf(row.locks, lockText)},
      {title: 'Samples', numeric: true, value: (row) => row.samples},
      {title: 'Waiters', value: (row) => someOf(row.waiterThreads, threadText)},
      {title: 'Owners', value: (row) => someOf(row.ownerThreads, threadText)},
    ]}, (row) => [row.waiter, row.owner, row.now, ...[...row.locks].map(lockText),
    ...row.waiterThreads, ...row.ownerThreads].join('\n'));
  return [el('p', {class: 'note'}, 'Choose a row for both stacks.'), table.element, stacks];
}

// The stacks of the two threads of a pair that were seen most, side by side.
function bothStacks({top}) {
  const side = (title, thread, frames, isCut, holding) => el('div', null,
    el('h4', null, `${title}: ${threadText(thread)}`),
    frames === null ? el('p', {class: 'note'}, kStackNotKnown)
      : el('ol', {class: 'stack'}, frames.map((frame, index) => el('li', null,
        index === holding ? el('strong', null, `${frame} took the lock`) : frame)),
      isCut && el('li', null, '…')));
  return el('div', {class: 'columns both'},
    side('Waits', top.waiterThread, top.waiter, top.waiterCut, null),
    hasOwner(top) && side('Holds the lock', top.ownerThread, top.owner, top.ownerCut,
      top.holdingFrame));
}

// Pairs as a list with bars: waiting site ← holding site.
function pairList(profile, pairs, whole) {
  const kShown = 8;
  if (pairs.length === 0) {
    return el('p', {class: 'note'}, 'No sample shows a thread that waited here.');
  }
  const rest = pairs.length - kShown;
  return [el('ol', {class: 'ranking pairs'}, pairs.slice(0, kShown).map((pair) => {
    const bar = el('span', {class: 'bar', 'aria-hidden': 'true'});
    bar.style.setProperty('--share', `${whole > 0 ? (100 * pair.nanos) / whole : 0}%`);
    return el('li', null,
      el('div', null, code(siteText(pair.waiter)), ' ', el('span', {class: 'dim'},
        someOf(pair.waiterThreads, threadText)), el('br'), '← ', ownerOf(pair),
      chainItems(profile, pair),
      el('details', null, el('summary', null, 'Stacks'), bothStacks(pair))),
      el('span', {class: 'amount'}, `${formatMillis(pair.nanos)} ms, ${
        formatShare(pair.nanos, whole)}, ${plural(pair.samples, 'sample', 'samples')}`), bar);
  })), rest > 0 && el('p', {class: 'note'}, `${plural(rest, 'more pair', 'more pairs')}.`)];
}

const ownerOf = (pair) => (pair.isKnown ? [
  pair.isHolding ? 'held by ' : 'held by a thread in ', code(siteText(pair.owner)), ' ',
  el('span', {class: 'dim'}, someOf(pair.ownerThreads, threadText)),
  pair.now !== null && [', seen most in ', code(pair.now)]]
  : ownerNoteText(pair.note));

// What the owner waits for itself, lock after lock.
function chainItems(profile, pair) {
  const kDeepest = 8;
  const chain = pair.waitsFor === null ? [] : chainOf(profile, pair);
  return chain.length > 0 && el('ul', {class: 'chain'}, chain.slice(0, kDeepest).map((link) =>
    el('li', null, '← and itself waits for ',
      code(link.lock ? lockText(link.lock) : `(lock ${link.id}, not in the report)`),
      link.isAgain && ' again: a circle',
      link.ownerThread !== null && [link.isHolding ? ', held by ' : ', held by a thread in ',
        code(siteText(link.owner)), ' ', el('span', {class: 'dim'}, threadText(link.ownerThread))])),
  chain.length > kDeepest && el('li', null, plural(chain.length - kDeepest, 'more lock', 'more locks')));
}

// The pairs whose owner waits itself.
function chainPanel(profile, pairs, whole) {
  const chained = pairs.filter((pair) => pair.waitsFor !== null);
  return chained.length > 0 && panel('Chains: owners that wait for another lock themselves',
    pairList(profile, chained, whole));
}

// The time of samples that have no owner, by the reason.
function unknownOwners(pairs, whole) {
  const nanosOf = new Map();
  for (const pair of pairs.filter((one) => !one.isKnown)) {
    nanosOf.set(pair.note, (nanosOf.get(pair.note) ?? 0) + pair.nanos);
  }
  return nanosOf.size > 0 && panel('Time without a known owner', factList([...nanosOf]
    .sort((a, b) => b[1] - a[1]).map(([note, nanos]) => [
      `${formatMillis(nanos)} ms, ${formatShare(nanos, whole)}`, ownerNoteText(note)])));
}
