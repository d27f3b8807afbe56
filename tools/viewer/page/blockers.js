// Who blocks whom: a matrix of owner threads and blocked threads, and its pairs as a table.

const kMatrixSide = 25;

const blockerView = {
  id: 'blockers',
  title: 'Who blocks whom',
  isIn: (report, session) => Boolean(session),

  build(report, session) {
    const pairs = blockingPairs(session);
    return {element: el('div', null,
      panel('Who blocks whom',
        el('p', {class: 'note'}, 'The agent counts how often each thread was found owning a lock ' +
          'that another thread came to, and how often each thread came to each lock, but not the ' +
          'pairs. The cells are therefore estimates (≈): the count of an owner is spread over the ' +
          'locks that it owned and the threads that came to them. ' +
          (ownersAreSampled(session) ? '' : 'The sums of the owners are exact.')),
        sampleNote(session), unknownLocksNote(session, pairs),
        pairs.length > 0 ? matrix(session, pairs) : session.blockers.length === 0 &&
          el('p', {class: 'note'}, 'No thread was found owning a lock while others came to it.')),
      panel('Pairs', pairTable(session, pairs)),
      panel('Threads', threadsTable(session)))};
  },
};

// Of what the owners are a sample; nothing where no owner lookup was skipped.
function sampleNote(session) {
  if (!ownersAreSampled(session)) {
    return null;
  }
  const {perSecond, made, leftOut} = session.ownerLookups;
  const timesOf = (member) => sum(session.blockers.map((owner) => owner[member]));
  const [found, estimated] = [timesOf('timesOwner'), timesOf('estimatedTimesOwner')];
  return el('p', {class: 'note', id: 'owner-sample'}, el('strong', null, 'Owners are a sample: '),
    `${plural(made, 'owner lookup', 'owner lookups')} made, ${formatNumber(leftOut)} skipped, at most ${
      formatNumber(perSecond)} a second.`,
    estimated > found && ` About ${formatShare(found, estimated)} were found; “≈ In all” and the ` +
      'estimates of the pairs are scaled up, blocking periods and seconds are as found.');
}

// The owners that are not in pairs.
function unknownLocksNote(session, pairs) {
  const known = new Set(pairs.map((pair) => pair.owner));
  const kShown = 5;
  const others = session.blockers.filter((owner) => !known.has(owner.name))
    .sort((a, b) => b.timesOwner - a.timesOwner);
  return others.length > 0 && el('p', {class: 'note', id: 'owners-without-locks'},
    'Not in a pair, as it is not known which locks they owned: ', others.slice(0, kShown).map((owner) =>
      `${named(owner.name)} (found owning ${plural(owner.timesOwner, 'time', 'times')})`).join(', '),
    others.length > kShown ? ` and ${plural(others.length - kShown, 'more owner', 'more owners')}.`
      : '.');
}

// The column of scaled counts, where they are needed.
const inAll = (session, column) => (ownersAreSampled(session) ? [column] : []);

function matrix(session, pairs) {
  const names = (member) => new Set(pairs.map((pair) => pair[member]));
  const [allOwners, allBlocked] = [names('owner'), names('blocked')];
  const owners = session.blockers.filter((owner) => allOwners.has(owner.name))
    .sort((a, b) => b.timesOwner - a.timesOwner).slice(0, kMatrixSide);
  const blocked = session.threads.filter((thread) => allBlocked.has(thread.name))
    .sort((a, b) => b.entries - a.entries).slice(0, kMatrixSide);
  const highest = Math.max(maximum(pairs.map((pair) => pair.estimate)), 1);
  const cells = new Map(pairs.map((pair) => [JSON.stringify([pair.owner, pair.blocked]), pair]));
  const cell = (owner, thread) => {
    if (owner.name === thread.name) {
      return el('td', {class: 'self'}, el('span', {class: 'unseen'}, 'itself'));
    }
    const pair = cells.get(JSON.stringify([owner.name, thread.name]));
    const estimate = Math.round(pair?.estimate ?? 0);
    const element = el('td', {
      title: `${named(owner.name)} blocks ${named(thread.name)}: ≈ ${formatNumber(estimate)}`},
    estimate > 0 ? formatNumber(estimate) : '');
    element.style.setProperty('--heat', `${(50 * (pair?.estimate ?? 0)) / highest}%`);
    return element;
  };
  const hidden = allOwners.size > kMatrixSide || allBlocked.size > kMatrixSide;
  return el('div', {class: 'scroller matrix-frame', tabindex: '0', role: 'region',
    'aria-label': 'Matrix of owner threads and blocked threads'},
  el('table', {class: 'matrix'},
    el('caption', null, 'Rows: owner threads. Columns: threads that came to their locks.',
      hidden && ` The first ${kMatrixSide} of each; the pairs below are complete.`),
    el('thead', null, el('tr', null, el('th', {scope: 'col'}, 'Owner'),
      el('th', {scope: 'col', class: 'number'}, 'Found owning'),
      inAll(session, el('th', {scope: 'col', class: 'number'}, '≈ In all')),
      blocked.map((thread) => el('th', {scope: 'col', class: 'upright', title: thread.name},
        el('span', null, named(thread.name)))))),
    el('tbody', null, owners.map((owner) => el('tr', null,
      el('th', {scope: 'row', title: owner.name}, named(owner.name)),
      el('td', {class: 'number total'}, formatNumber(owner.timesOwner)),
      inAll(session, el('td', {class: 'number total'}, formatNumber(owner.estimatedTimesOwner))),
      blocked.map((thread) => cell(owner, thread)))))));
}

function pairTable(session, pairs) {
  const lockNames = (pair) =>
    pair.locks.map((index) => shortName(session.locks[index].name)).join(', ');
  return filteredTable({caption: 'Pairs of owner and blocked thread', rows: pairs, sortBy: 2,
    columns: [
      {title: 'Owner', wide: true, value: (row) => named(row.owner),
        show: (row) => threadName(row.owner)},
      {title: 'Blocked', wide: true, kept: true, value: (row) => named(row.blocked),
        show: (row) => threadName(row.blocked)},
      {title: '≈ Times', numeric: true, value: (row) => row.estimate,
        show: (row) => formatNumber(Math.round(row.estimate))},
      {title: 'Locks in common', wide: true, value: lockNames},
    ]}, (row) => `${row.owner}\n${row.blocked}`).element;
}

function threadsTable(session) {
  return filteredTable({caption: 'Threads', rows: session.threads, sortBy: 3, columns: [
    {title: 'Thread', wide: true, value: (row) => named(row.name), show: (row) => threadName(row.name)},
    {title: 'Locks', numeric: true, value: (row) => row.locks},
    {title: 'Entries', numeric: true, value: (row) => row.entries},
    {title: 'Blocked s', numeric: true, value: (row) => row.blockedSeconds},
    {title: 'Waited s', numeric: true, value: (row) => row.waitedSeconds},
    {title: 'Found owning', numeric: true, value: (row) => row.timesOwner},
    ...inAll(session,
      {title: '≈ In all', numeric: true, value: (row) => row.estimatedTimesOwner}),
    {title: 'Blocking periods', numeric: true, value: (row) => row.blockingPeriods},
    {title: 'Blocking s', numeric: true, value: (row) => row.blockingSeconds},
  ]}, (row) => row.name).element;
}
