// What grows by allocation samples: over time, by the place that allocated it, by class, and who
// holds it.

const kFewSamples = 20;

// Puts frames, which a report for the page has once each, in place of their numbers.
function unfoldStacks(session) {
  for (const one of [...session.sites, ...session.paths]) {
    one.stack = one.stack?.map((number) => session.frames[number]) ?? null;
  }
}

const growthText = ({growsBy, tooFew}) => (growsBy === null ? 'not known'
  : tooFew ? 'too few' : growsBy === 0 ? '0' : `${formatBytes(growsBy)}/min`);
const growthPhrase = (row) => (row.growsBy === null ? 'growth not known'
  : row.tooFew ? 'too few samples to show growth' : row.growsBy === 0 ? 'does not grow'
  : `grows by ${growthText(row)}`);
const sampleText = (count) => plural(count, 'sample', 'samples');

// "1.5 MiB alive (3 samples: an estimate, between about 0.4 MiB and 4.2 MiB)".
function aliveText({samples, bytes, low, high}) {
  if (samples === 0) {
    return 'no sample is alive';
  }
  const range = low === high ? ': objects so large that each is one'
    : `: an estimate, between about ${formatBytes(low)} and ${formatBytes(high)}`;
  return `≈ ${formatBytes(bytes)} alive (${sampleText(samples)}${
    samples < kFewSamples ? range : ''})`;
}

function allocationSession(session) {
  const momentOf = momentFormatFor([session.started, session.ended].filter((time) => time !== null));
  return el('div', {class: 'allocations'},
    allocationSummary(session),
    growthCharts(session, momentOf),
    session.growing.length > 0 && placePanel(session),
    session.classes.length > 0 && classPanel(session),
    panel('What these figures do not tell', el('ul', {class: 'notes'},
      session.missing.map((note) => el('li', null, note)),
      session.cost && el('li', null, session.cost.text))));
}

function allocationSummary(session) {
  const [title, ...sentences] = session.head;
  const most = session.growing.find((one) => one.growsBy > 0);
  return panel(title,
    session.collections === 0 && el('p', {class: 'problems'}, el('strong', null,
      'No collection ran: nothing is known to survive, and nothing is known to grow.')),
    session.alive && el('dl', {class: 'tiles small'}, [
      ['Alive after collections', `≈ ${formatBytes(session.alive.bytes)}`,
        sampleText(session.alive.samples)],
      ['Allocated', `≈ ${formatBytes(session.allocated.bytes)}`,
        sampleText(session.allocated.samples)],
      ['Grows most', most ? growthText(most) : session.collections === 0 ? 'not known' : 'nothing',
        most ? shortMethod(siteText(most.site)) : ''],
      ['Collections', formatNumber(session.collections), session.afterCollection
        ? 'the last one just before this was written' : 'rounds'],
    ].map(([name, value, note]) => el('div', null, el('dt', null, name),
      el('dd', {class: 'value'}, value), el('dd', {class: 'note'}, note)))),
    sentences.map((sentence) => el('p', {class: 'note'}, sentence)));
}

const kLines = 5;

const lineLegend = (series) => el('ul', {class: 'lines legend'}, series.map(({name}, number) =>
  el('li', null, lineSample(number), el('span', {title: name}, shortOf(name)))));

// Frames by method and line, classes by their names.
const shortOf = (name) => (name.endsWith(')') && !name.startsWith('(') ? shortMethod(name)
  : shortName(name));

function growthCharts(session, momentOf) {
  const times = session.points.map((point) => point.at);
  const places = session.growing.slice(0, kLines).filter((one) => one.course.length > 1)
    .map((one) => ({name: siteText(one.site), values: one.course}));
  const histogramTimes = session.histograms?.points.map((point) => point.at) ?? [];
  const grown = new Map(session.growth.map((one) => [one.class, one]));
  const classes = session.classes.filter((one) => grown.has(one.class)).slice(0, kLines)
    .map((one) => ({name: one.class, values: grown.get(one.class).bytes}));
  const parts = [
    places.length > 0 && byteFigure('Alive after collections, from the places that grow most', places,
      times, momentOf, 'Place'),
    classes.length > 0 && histogramTimes.length > 1 && byteFigure(
      'All live objects of the classes that grow most, by class histograms', classes, histogramTimes,
      momentOf, 'Class'),
  ].filter(Boolean);
  return parts.length > 0 && panel('What grows, over time (UTC)', parts);
}

function byteFigure(caption, series, times, momentOf, what) {
  const rows = times.map((time, index) => ({time, values: series.map((one) => one.values[index])}));
  const table = dataTable({caption, rows, columns: [
    {title: 'Time', value: (row) => row.time, show: (row) => momentOf(row.time)},
    ...series.map(({name}, index) => ({title: `${what} ${index + 1}: ${shortOf(name)}`, numeric: true,
      value: (row) => row.values[index] ?? -1,
      show: (row) => (row.values[index] == null ? '–' : formatNumber(row.values[index]))})),
  ]}).element;
  return [figure(caption, byteChart(series, times, momentOf, caption), table), lineLegend(series)];
}

const growthColumn = (highest) => ({title: 'Grows by', numeric: true,
  value: (row) => row.growsBy ?? -1, show: growthText,
  share: (row) => (highest > 0 ? (row.growsBy ?? 0) / highest : 0)});
const aliveColumn = {title: 'Alive', numeric: true, value: (row) => row.alive.bytes,
  show: (row) => formatBytes(row.alive.bytes)};
const sampleColumn = {title: 'Samples', numeric: true, value: (row) => row.alive.samples,
  show: (row) => (row.alive.samples < kFewSamples ? `${row.alive.samples} (few)`
    : formatNumber(row.alive.samples))};

function placePanel(session) {
  const detail = el('div', {id: 'allocation-place'});
  const highest = maximum(session.growing.map((one) => one.growsBy ?? 0));
  const table = filteredTable({
    caption: 'Places that allocated what is alive', rows: session.growing,
    onSelect: (row) => {
      detail.replaceChildren(placeDetail(session, row));
      announce(`What ${siteText(row.site)} allocated, below`);
    },
    columns: [
      {title: 'Allocated in', wide: true, value: (row) => siteText(row.site),
        show: (row) => javaName(siteText(row.site))},
      {title: 'Classes', wide: true,
        value: (row) => row.classes.map((one) => shortName(one.class)).join(', ')},
      growthColumn(highest), aliveColumn, sampleColumn,
      {title: 'Allocated', numeric: true, value: (row) => row.allocated.bytes,
        show: (row) => formatBytes(row.allocated.bytes)},
      {title: 'Over time', picture: true, value: (row) => row.course.at(-1) ?? 0,
        show: (row) => sparkline(row.course, maximum(row.course))},
    ]}, (row) => [siteText(row.site), ...row.classes.map((one) => one.class)].join('\n'));
  const first = session.growing[0];
  detail.append(placeDetail(session, first));
  return panel('What grows, by the place that allocated it',
    el('p', {class: 'note'}, 'A place is the first frame outside the JDK. It grows by what is alive ' +
      'from that half of the session which has left less, by minute: a leak has as much from both ' +
      'halves, what was made at the start and a cache that drops its oldest entries do not. Choose a row for its ' +
      'classes, who holds them, and the stacks.'),
    table.element, detail);
}

function placeDetail(session, place) {
  const sites = session.sites.filter((one) => one.site === place.site);
  const threads = new Set(sites.flatMap((one) => one.threads.map((thread) => thread.name)));
  return el('div', null, el('h4', null, `${siteText(place.site)}: ${growthPhrase(place)}`),
    place.classes.slice(0, kShownClasses).map((one) => el('div', null,
      el('p', null, code(one.class), `: ${aliveText(one.alive)}, ${growthPhrase(one)}`),
      one.alive.samples > 0 && heldBy(session, one))),
    moreText(place.classes.length - kShownClasses, 'more class', 'more classes'),
    threads.size > 0 && el('p', {class: 'note'}, `Allocated by ${someOf(threads, named)}`),
    siteStacks(sites));
}

const kShownClasses = 8;
const kShownPaths = 4;

const moreText = (count, one, many) => count > 0 &&
  el('p', {class: 'note'}, `${plural(count, one, many)}.`);

// The part of a path from an object of the class on, which may be a holder on it.
function heldText(path, name) {
  const links = path.text.split(' <- ');
  const at = path.class === name ? -1 : links.findIndex((link) => link.startsWith(`${name}.`) ||
    link.startsWith(name.replace(/\[\]$/, '[')));
  return links.slice(at + 1).join(' <- ');
}

function heldBy(session, {class: name, paths: numbers, pathsAreOfSite = true}) {
  if (numbers.length === 0) {
    return el('p', {class: 'note'}, 'Who holds these objects is not known: no path to a root.');
  }
  const paths = numbers.map((number) => session.paths[number]);
  return [el('ul', {class: 'chain held'}, paths.slice(0, kShownPaths).map((path) => el('li', null,
    `${pathsAreOfSite ? 'held by' : 'objects of this class are held by'} ${
      heldText(path, name)} (${plural(path.samples, 'object', 'objects')} seen)`))),
  moreText(paths.length - kShownPaths, 'more path', 'more paths')];
}

function siteStacks(sites) {
  const kShownStacks = 5;
  return [sites.slice(0, kShownStacks).map((one) => el('details', null,
    el('summary', null, `${shortName(one.class)}: ${aliveText(one.alive)}, of ≈ ${
      formatBytes(one.allocated.bytes)} allocated (${sampleText(one.allocated.samples)})`),
    one.stack === null ? el('p', {class: 'note'}, kStackNotKnown)
      : el('ol', {class: 'stack'}, one.stack.map((frame) => el('li', null, frame)),
        one.cut && el('li', null, '…')))),
  moreText(sites.length - kShownStacks, 'more stack', 'more stacks')];
}

function classPanel(session) {
  const detail = el('div', {id: 'allocation-class'});
  const highest = maximum(session.classes.map((one) => one.growsBy ?? 0));
  const table = filteredTable({
    caption: 'Classes of what is alive', rows: session.classes,
    onSelect: (row) => {
      detail.replaceChildren(classDetail(session, row));
      announce(`Where ${row.class} was allocated, below`);
    },
    columns: [
      {title: 'Class', wide: true, value: (row) => row.class, show: (row) => javaName(row.class)},
      growthColumn(highest),
      {title: 'Known from', value: (row) => row.from},
      aliveColumn, sampleColumn,
      {title: 'In histogram', numeric: true, value: (row) => row.histogramBytes ?? -1,
        show: (row) => (row.histogramBytes === null ? '–' : formatBytes(row.histogramBytes))},
      {title: 'Places', numeric: true, value: (row) => row.sites.length},
    ]}, (row) => row.class);
  return panel('By class', el('p', {class: 'note'},
    'Choose a row for the places that allocated the class, and who holds its objects.'),
  table.element, detail);
}

const classDetail = (session, row) => el('div', null,
  el('h4', null, `${row.class}: ${growthPhrase(row)}`),
  el('p', null, aliveText(row.alive)), heldBy(session, row),
  el('ol', {class: 'ranking'}, row.sites.slice(0, kShownClasses).map((one) => el('li', null,
    code(siteText(one.site)), el('span', {class: 'amount'},
      `${growthPhrase(one)}, ${aliveText(one.alive)}`)))),
  moreText(row.sites.length - kShownClasses, 'more place', 'more places'));
