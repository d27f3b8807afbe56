// Memory: what grows by allocation samples, and the survivors of tracked classes, stacked by the
// generation that their objects were tagged in.

const memoryView = {
  id: 'memory',
  title: 'Memory',
  isIn: (report) => report.memory?.length > 0 || report.allocations?.length > 0,

  build({memory, allocations}) {
    return {element: el('div', null, (allocations ?? []).map(allocationSession),
      memory.map(memorySession))};
  },
};

function memorySession(session) {
  const kShownClasses = 15;
  const measure = el('select', null, el('option', {value: 'bytes'}, 'Bytes'),
    el('option', {value: 'objects'}, 'Objects'));
  const picture = el('div', {class: 'survivors'});
  const draw = () => picture.replaceChildren(...survivorBars(
    session.classes.slice(0, kShownClasses), session.generations, measure.value));
  measure.addEventListener('change', draw);
  draw();
  const detail = el('div');
  const total = Number(session.totals.bytes);
  const classes = filteredTable({caption: 'Classes with surviving objects', rows: session.classes,
    sortBy: 2, onSelect: (row) => {
      detail.replaceChildren(el('h4', null, row.name), generationTable([row], 'of the class'));
      announce(`Generations of ${row.name} below`);
    },
    columns: [
      {title: 'Class', wide: true, value: (row) => row.name, show: (row) => javaName(row.name)},
      {title: 'Objects', numeric: true, value: (row) => row.objects},
      {title: 'Bytes', numeric: true, value: (row) => Number(row.bytes),
        show: (row) => formatExactBytes(row.bytes)},
      {title: 'Share', numeric: true, value: (row) => Number(row.bytes),
        show: (row) => formatShare(Number(row.bytes), total),
        share: (row) => (total > 0 ? Number(row.bytes) / total : 0)},
      {title: 'Generations', numeric: true, value: (row) => row.generations.length},
      {title: 'Oldest', numeric: true,
        value: (row) => row.generations[0]?.generation ?? 0},
    ]}, (row) => row.name);
  const left = session.classes.length - kShownClasses;
  return panel(`Survivors of session ${session.id}: ${formatBytes(session.totals.bytes)} in ${
    plural(session.totals.objects, 'object', 'objects')}`,
  el('p', {class: 'note'}, 'Tagged objects that no collection has freed yet, by the number of ' +
    'collections that had finished when they were tagged. Old generations that never shrink are ' +
    'the sign of a leak.'),
  el('div', {class: 'controls'}, field('Show', measure), ageLegend(session.generations)),
  figure(left > 0 ? `The ${kShownClasses} classes with the most bytes; ${
    formatNumber(left)} more in the table` : 'Survivors by class and generation', picture,
  generationTable(session.classes, 'of all classes')),
  el('h4', null, 'Classes'), classes.element, detail);
}

function ageLegend(generations) {
  if (generations.length === 0) {
    return null;
  }
  const [first, last] = [generations[0], generations[generations.length - 1]];
  const kSteps = 12;
  const count = Math.min(kSteps, generations.length);
  const steps = Array.from({length: count}, (_, step) =>
    svg('rect', {x: step * 10, y: 0, width: 10, height: 10,
      fill: ageColour(count > 1 ? step / (count - 1) : 0)}));
  return el('span', {class: 'legend'}, `tagged in generation ${first} (oldest) `,
    svg('svg', {viewBox: `0 0 ${count * 10} 10`, width: count * 10, height: 10,
      'aria-hidden': 'true'}, steps),
    last !== first && ` ${last} (youngest)`);
}

function survivorBars(classes, generations, measure) {
  const amount = (part) => Number(part[measure]);
  const text = measure === 'bytes' ? (part) => formatBytes(part.bytes)
    : (part) => plural(part.objects, 'object', 'objects');
  const whole = maximum(classes.map(amount));
  const place = new Map(generations.map((generation, index) =>
    [generation, generations.length > 1 ? index / (generations.length - 1) : 0]));
  return classes.map((one) => {
    const parts = one.generations.map((part) => ({
      size: amount(part), colour: ageColour(place.get(part.generation)),
      label: `Generation ${part.generation}: ${text(part)}`,
    }));
    return el('div', {class: 'survivor'},
      el('span', {class: 'name', title: one.name}, shortName(one.name)),
      stackedBar(parts, whole, `${one.name}: ${text(one)} in ${
        plural(parts.length, 'generation', 'generations')}`),
      el('span', {class: 'amount'}, text(one)));
  });
}

function generationTable(classes, what) {
  const rows = classes.flatMap((one) =>
    one.generations.map((part) => ({class: one.name, ...part})));
  return dataTable({caption: `Survivors by generation ${what}`, rows, columns: [
    {title: 'Class', wide: true, value: (row) => row.class, show: (row) => javaName(row.class)},
    {title: 'Generation', numeric: true, value: (row) => row.generation},
    {title: 'Objects', numeric: true, value: (row) => row.objects},
    {title: 'Bytes', numeric: true, value: (row) => Number(row.bytes),
      show: (row) => formatExactBytes(row.bytes)},
  ]}).element;
}
