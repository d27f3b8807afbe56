// The first view: what was profiled, and what stands out in each of its parts.

const overviewView = {
  id: 'overview',
  title: 'Overview',
  isIn: (report) => !report.tables,

  build(report, session, profile) {
    const parts = [noteList(report.notes ?? []), problemList(report.problems),
      unfinishedList(report.unfinished)];
    parts.push(findingList(report.findings ?? []));
    const tiles = [...profileTiles(profile), ...lockTiles(session), ...exceptionTiles(report),
      ...allocationTiles(report), ...memoryTiles(report)];
    parts.push(el('dl', {class: 'tiles'}, tiles.map(([title, number, note]) =>
      el('div', null, el('dt', null, title), el('dd', {class: 'value'}, number),
        el('dd', {class: 'note'}, note)))));
    const columns = el('div', {class: 'columns'});
    if (profile) {
      columns.append(mostBlockedClasses(profile), mostBlockingSites(profile));
    }
    if (session) {
      columns.append(mostBlocked(session), mostContendedSites(session), topOwners(session));
    }
    if (session?.stacksOfNoLock.length > 0) {
      parts.push(stacksOfNoLock(session));
    }
    if (report.exceptions) {
      columns.append(mostExceptions(report.exceptions));
    }
    for (const one of report.allocations) {
      columns.append(mostGrowing(one));
    }
    for (const memory of report.memory) {
      columns.append(mostSurvivors(memory));
    }
    columns.append(aboutRun(report));
    parts.push(columns);
    return {element: el('div', null, parts)};
  },
};

// What the run comes to: a sentence for each question that it answers; the others, with what would
// answer them, are folded.
function findingList(findings) {
  const known = findings.filter((one) => one.isKnown);
  const unknown = findings.filter((one) => !one.isKnown);
  const answer = (one) => [el('dt', null, one.question),
    el('dd', null, breakable(one.text), one.isKnown && [' ', el('a', {href: `#${one.view}`}, 'More')])];
  return findings.length > 0 && el('section', {class: 'panel findings', 'aria-label': 'In short'},
    known.length > 0 && el('dl', null, known.flatMap(answer)),
    unknown.length > 0 && el('details', null,
      el('summary', null, `Not answered by this report: ${
        unknown.map((one) => one.question.toLowerCase()).join(', ')}`),
      el('dl', null, unknown.flatMap(answer))));
}

// The inputs that could not be read; nothing when all could.
const problemList = (problems) => problems.length > 0 &&
  el('section', {class: 'panel problems', 'aria-label': 'Problems'},
    el('h3', null, 'Not everything could be read'),
    el('ul', null, problems.map((problem) => el('li', null, problem))));

// What else there is than what the page shows, and how to see it.
const noteList = (notes) => notes.length > 0 &&
  el('section', {class: 'panel', id: 'notes', 'aria-label': 'Other results'},
    notes.map((note) => el('pre', null, note)));

// On the other views: that the overview names what is not in the report.
const problemNote = ({problems = [], unfinished = []}) => problems.length + unfinished.length > 0 &&
  el('section', {class: 'panel problems', id: 'problem-note', 'aria-label': 'Problems'},
    'This report is not complete: ', el('a', {href: '#overview'}, [
      problems.length > 0 && 'not everything could be read',
      unfinished.length > 0 && plural(unfinished.length, 'session did not end',
        'sessions did not end'),
    ].filter(Boolean).join(', ')), '.');

// Sessions without a report.
const unfinishedList = (files) => files.length > 0 &&
  el('section', {class: 'panel problems', 'aria-label': 'Not finished'},
    el('h3', null, 'Sessions that did not end: the JVM was killed or is still running'),
    el('ul', null, files.map((file) => el('li', null, file))));

function profileTiles(profile) {
  if (!profile) {
    return [];
  }
  const {totals, deadlocks, stuck} = profile;
  const stuckText = deadlocks.length > 0 ? plural(deadlocks.length, 'deadlock', 'deadlocks')
    : stuck.length > 0 ? `stuck at ${plural(stuck.length, 'lock', 'locks')}` : 'none is stuck';
  return [
    ['Blocked, contention profile', formatNanos(totals.totalNanos), `${
      plural(totals.entries, 'entry', 'entries')} of monitors and locks`],
    ['Still blocked', formatNumber(totals.stillBlocked), stuckText],
  ];
}

const mostBlockedClasses = (profile) => ranking('Contended locks by class',
  lockRows(profile, isContention, true, null).sort((a, b) => b.nanos - a.nanos).slice(0, kRanked)
    .map((row) => ({
      name: shortName(row.name), title: row.field ?? row.name, amount: row.nanos,
      text: `${formatNanos(row.nanos)}, ${plural(row.entries, 'entry', 'entries')}`,
      href: '#contention',
    })), {href: '#contention', text: 'All locks of the contention profile'});

function mostBlockingSites(profile) {
  const nanosOf = new Map();
  for (const pair of sitePairs(allLocks(profile).filter(isContention))) {
    if (pair.isKnown) {
      const site = siteText(pair.owner);
      nanosOf.set(site, (nanosOf.get(site) ?? 0) + pair.nanos);
    }
  }
  return ranking('Where locks were held while others waited', [...nanosOf]
    .sort((a, b) => b[1] - a[1]).slice(0, kRanked).map(([site, nanos]) => ({
      name: shortMethod(site), title: site, amount: nanos, text: formatNanos(nanos), href: '#pairs',
    })), {href: '#pairs', text: 'All waiters and owners'});
}

function lockTiles(session) {
  if (!session) {
    return [];
  }
  const totals = session.totals;
  const idleLocks = session.locks.filter(isIdleLock);
  const idle = sum(idleLocks.map((lock) => lock.waitedSeconds));
  return [
    ['Blocked', formatSeconds(totals.blockedSeconds), 'waiting for a monitor'],
    ['Contended entries', formatNumber(totals.entries), `of ${
      plural(totals.threads, 'thread', 'threads')}`],
    ['Contended locks', formatNumber(totals.locks - idleLocks.length), plural(session.stacks.length,
      'distinct stack', 'distinct stacks')],
    ['Waited', formatSeconds(totals.waitedSeconds - idle), idle > 0
      ? `in Object.wait, and ${formatSeconds(idle)} in idle threads` : 'in Object.wait'],
  ];
}

function exceptionTiles({exceptions}) {
  if (!exceptions) {
    return [];
  }
  const records = plural(exceptions.records.length, 'record', 'records');
  if (exceptions.thrown !== null) {
    return [['Exceptions', formatNumber(exceptions.thrown), `${countedWord(exceptions.counts)}; ${
      records}${exceptions.losses.length > 0 ? '; incomplete' : ''}`]];
  }
  const note = exceptions.losses.length > 0 ? 'recorded; incomplete'
    : exceptions.agent ? `recorded, of ${formatNumber(exceptions.agent.seen)} that were thrown`
      : 'recorded; more may have been thrown';
  return [['Exceptions', formatNumber(exceptions.records.length), note]];
}

// Of what was allocated while samples were drawn.
const allocationTiles = ({allocations}) => allocations.filter((one) => one.alive)
  .map((one) => ['Alive after collections', `≈ ${formatBytes(one.alive.bytes)}`,
    one.collections === 0 ? 'no collection ran: not known'
      : `${plural(one.alive.samples, 'sample', 'samples')}; of ${
        formatBytes(one.allocated.bytes)} allocated`]);

function memoryTiles({memory}) {
  return memory.map((one) => ['Survivors', formatBytes(one.totals.bytes),
    `${plural(one.totals.objects, 'object', 'objects')} of ${
      plural(one.totals.classes, 'class', 'classes')}`]);
}

// A short list of bars: rows are {name, title, amount, text, href}.
function ranking(title, rows, more) {
  const highest = maximum(rows.map((row) => row.amount));
  const items = rows.map((row) => {
    const bar = el('span', {class: 'bar', 'aria-hidden': 'true'});
    bar.style.setProperty('--share', `${highest > 0 ? (100 * row.amount) / highest : 0}%`);
    return el('li', null,
      el('a', {href: row.href, title: row.title}, named(row.name)),
      el('span', {class: 'amount'}, row.text), bar);
  });
  return panel(title,
    rows.length > 0 ? el('ol', {class: 'ranking'}, items) : el('p', {class: 'note'}, 'None.'),
    more && el('p', {class: 'more'}, el('a', {href: more.href}, more.text)));
}

const kRanked = 5;

function mostBlocked(session) {
  const locks = session.locks.map((lock, index) => ({...lock, index}))
    .filter((lock) => !isIdleLock(lock));
  return ranking('Locks with the most blocked time', locks.slice(0, kRanked).map((lock) => ({
    name: shortName(lock.name), title: lock.name, amount: lock.blockedSeconds,
    text: `${formatSeconds(lock.blockedSeconds)}, ${plural(lock.entries, 'entry', 'entries')}`,
    href: `#locks/${lock.index}`,
  })), {href: '#locks', text: `All ${formatNumber(locks.length)} locks`});
}

const mostContendedSites = (session) => ranking('Methods that found a lock taken',
  session.sites.slice(0, kRanked).map((site) => ({
    name: site.method === null ? kUnknownStack : shortMethod(site.method),
    title: site.method ?? kUnknownStack, amount: site.entries,
    text: plural(site.entries, 'entry', 'entries'), href: '#flame',
  })), {href: '#flame', text: 'All stacks'});

const topOwners = (session) => ranking('Threads that held others up',
  [...session.blockers].sort((a, b) => b.timesOwner - a.timesOwner).slice(0, kRanked)
    .map((blocker) => ({
      name: blocker.name, title: blocker.name, amount: blocker.timesOwner,
      text: `found owning ${formatNumber(blocker.timesOwner)} times${ownersAreSampled(session)
        ? `, in all ≈ ${formatNumber(blocker.estimatedTimesOwner)}` : ''}`,
      href: '#blockers',
    })), {href: '#blockers', text: 'Who blocks whom'});

const mostExceptions = (exceptions) => ranking('Exceptions',
  exceptions.groups.slice(0, kRanked).map((group, index) => ({
    name: shortName(group.class), title: `${group.class} at ${placeOfGroup(group)}`,
    amount: knownCount(group),
    text: group.thrown === null ? plural(group.count, 'record', 'records')
      : `${formatNumber(group.thrown)} ${countedWord(exceptions.counts)}`,
    href: `#exceptions/${index}`,
  })), {href: '#exceptions', text: `All ${formatNumber(exceptions.records.length)} records`});

const mostGrowing = (session) => ranking('What grows, by the place that allocated it',
  session.growing.filter((one) => one.growsBy > 0).slice(0, kRanked).map((one) => ({
    name: one.site === null ? kStackNotKnown : shortMethod(one.site), title: one.site ?? kStackNotKnown,
    amount: one.growsBy, text: `${growthText(one)}, ${plural(one.alive.samples, 'sample', 'samples')}`,
    href: '#memory',
  })), {href: '#memory', text: 'All places and classes'});

const mostSurvivors = (memory) => ranking('Classes with the most surviving bytes',
  memory.classes.slice(0, kRanked).map((one) => ({
    name: shortName(one.name), title: one.name, amount: Number(one.bytes),
    text: `${formatBytes(one.bytes)}, ${plural(one.objects, 'object', 'objects')}`,
    href: '#memory',
  })), {href: '#memory', text: 'All classes'});

function aboutRun(report) {
  const run = report.run ?? {};
  const options = Object.entries(run.options ?? {});
  const facts = [
    ['Command', run.command], ['Process', run.pid], ['Started', run.started && formatTime(run.started)],
    ['Java', run.java], ['VM', run.vm],
    ['Deleted', run.removedReports > 0
      ? plural(run.removedReports, 'older report', 'older reports') : null],
  ].filter(([, value]) => value !== null && value !== undefined && value !== '');
  return panel('About this run', factList(facts),
    options.length > 0 && el('details', null,
      el('summary', null, plural(options.length, 'option of the profiler', 'options of the profiler')),
      factList(options)),
    el('details', null, el('summary', null, `${plural(report.inputs.length, 'file', 'files')} read`),
      el('ul', {class: 'files'}, report.inputs.map((file) => el('li', null, file)))));
}
