// Two runs side by side: what got worse, better, came and went.

const kChanges = ['worse', 'came', 'better', 'went', 'same'];

const comparisonView = {
  id: 'comparison',
  title: 'Comparison',
  isIn: (report) => Boolean(report.tables),

  build(report) {
    const {threshold, tables} = report;
    return {element: el('div', null,
      problemList([...report.before.problems, ...report.after.problems]),
      panel('Two runs', factList([
        ['Before', sideText(report.before)], ['After', sideText(report.after)],
        ['What counts', `differences of ${threshold.percent} % and more of the larger number, and of ${
          formatNumber(threshold.least)} and more`],
      ])),
      tables.length === 0 && el('p', {class: 'note'}, 'Neither run has a report.'),
      tables.map(comparedPanel))};
  },
};

const sideText = (side) => [side.run?.command, side.run?.started && formatTime(side.run.started),
  side.inputs.join(', ')].filter(Boolean).join(' · ');

function comparedPanel({name, measure, rows, notRecordedIn, sessionsBefore, sessionsAfter, notes}) {
  const counts = kChanges.map((change) =>
    [change, rows.filter((row) => row.change === change).length]);
  const difference = (row) => Number(row.after ?? 0) - Number(row.before ?? 0);
  const widest = maximum(rows.map((row) => Math.abs(difference(row))));
  const title = name[0].toUpperCase() + name.slice(1);
  if (notRecordedIn) {
    return panel(`${title}, ${measure}`,
      el('p', {class: 'note'}, `Not recorded in ${notRecordedIn}.`));
  }
  const table = filteredTable({
    caption: `${title} of both runs`, rows, columns: [
      {title: 'Name', wide: true, value: (row) => named(row.name), show: (row) => javaName(row.name)},
      {title: 'Before', numeric: true, value: (row) => Number(row.before ?? -1),
        show: (row) => numberOrNone(row.before)},
      {title: 'After', numeric: true, value: (row) => Number(row.after ?? -1),
        show: (row) => numberOrNone(row.after)},
      {title: 'Difference', numeric: true, kept: true, value: difference,
        show: (row) => formatSigned(difference(row))},
      {title: 'Better, worse', numeric: true, picture: true, value: difference,
        show: (row) => differenceBar(difference(row), widest)},
      {title: 'Change', value: (row) => row.change,
        show: (row) => el('span', {class: `change ${row.change}`}, row.change)},
    ],
  }, (row) => `${row.name}\n${row.change}`);
  return panel(`${title}, ${measure}`,
    Math.max(sessionsBefore, sessionsAfter) > 1 && el('p', {class: 'note'},
      `Summed over the sessions of each run: ${sessionsBefore} before, ${sessionsAfter} after.`),
    notes.map((note) => el('p', {class: 'note'}, note)),
    el('dl', {class: 'tiles small'}, counts.map(([change, count]) =>
      el('div', null, el('dt', null, change), el('dd', {class: 'value'}, formatNumber(count))))),
    table.element);
}

const formatSigned = (value) => (value > 0 ? `+${formatNumber(value)}` : formatNumber(value));

// A bar from the middle: to the right for more, which is worse, to the left for less.
function differenceBar(difference, widest) {
  const [width, height] = [110, 18];
  const size = widest > 0 ? (Math.abs(difference) / widest) * (width / 2) : 0;
  return svg('svg', {viewBox: `0 0 ${width} ${height}`, class: 'sparkline', 'aria-hidden': 'true'},
    svg('line', {x1: width / 2, x2: width / 2, y1: 0, y2: height}),
    svg('rect', {x: difference > 0 ? width / 2 : width / 2 - size, y: 3, width: size, height: 12,
      class: difference > 0 ? 'worse' : 'better'}));
}
