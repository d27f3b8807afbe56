// Small pictures in SVG. Each is an image with a label; the numbers stand in a table next to it.

// The next "round" number (1, 2 or 5 times a power of ten) at or above the value.
function roundUp(value) {
  const power = 10 ** Math.floor(Math.log10(Math.max(value, 1)));
  return [1, 2, 5, 10].map((factor) => factor * power).find((round) => round >= value);
}

// Bars for contended entries by minute, with axes.
function minuteChart(values, label) {
  const [width, height, left, bottom, top] = [720, 180, 56, 34, 10];
  const plotWidth = width - left - 8;
  const plotHeight = height - bottom - top;
  const highest = roundUp(Math.max(maximum(values), 1));
  const step = plotWidth / values.length;
  const y = (value) => top + plotHeight * (1 - value / highest);
  const ticks = highest === 1 ? [0, 1] : [0, highest / 2, highest].filter(Number.isInteger);
  const picture = svg('svg', {viewBox: `0 0 ${width} ${height}`, class: 'chart', role: 'img',
    'aria-label': label});
  for (const tick of ticks) {
    picture.append(
      svg('line', {class: 'grid', x1: left, x2: width - 8, y1: y(tick), y2: y(tick)}),
      svg('text', {x: left - 8, y: y(tick) + 4, 'text-anchor': 'end'}, formatNumber(tick)));
  }
  const gap = Math.min(2, step / 5);
  const barWidth = Math.min(step - gap, 48);
  const labelEvery = Math.ceil(values.length / 15);
  values.forEach((value, minute) => {
    const middle = left + step * (minute + 0.5);
    picture.append(svg('rect', {class: 'bar', x: middle - barWidth / 2, width: barWidth,
      y: y(value), height: plotHeight * value / highest},
    svg('title', null, `Minute ${minute + 1}: ${plural(value, 'entry', 'entries')}`)));
    if (minute % labelEvery === 0) {
      picture.append(svg('text', {x: middle, y: height - bottom + 16, 'text-anchor': 'middle'},
        String(minute + 1)));
    }
  });
  picture.append(svg('text', {class: 'axis', x: left + plotWidth / 2, y: height - 3,
    'text-anchor': 'middle'}, 'minute'));
  return picture;
}

// A "round" number of bytes at or above the value.
function roundUpBytes(bytes) {
  const power = 2 ** Math.ceil(Math.log2(Math.max(bytes, 1)));
  return [0.625, 0.75, 0.875, 1].map((part) => part * power).find((round) => round >= bytes);
}

const kLineColours = ['#0072b2', '#d55e00', '#009e73', '#cc79a7', '#b8860b'];
const kLineDashes = ['', '7 3', '2 3', '10 3 2 3', '14 4'];

// A line in the way that the chart draws the one with this number, for a legend.
const lineSample = (number) => svg('svg', {viewBox: '0 0 28 10', width: 28, height: 10,
  'aria-hidden': 'true'}, chartLine(number, 'M0 5H28'));

const chartLine = (number, path) => svg('path', {class: 'line', d: path,
  stroke: kLineColours[number % kLineColours.length],
  'stroke-dasharray': kLineDashes[number % kLineDashes.length]});

// Bytes over time as lines: series are {name, values}, a value for each of `times` in milliseconds
// since 1970, null where not known. `momentOf` gives the text of a time.
function byteChart(series, times, momentOf, label) {
  const [width, height, left, right, bottom, top] = [860, 200, 70, 12, 28, 10];
  const highest = roundUpBytes(maximum(series.flatMap((one) => one.values.map((value) => value ?? 0))));
  const [from, to] = [times[0], Math.max(times.at(-1), times[0] + 1)];
  const x = (time) => left + ((width - left - right) * (time - from)) / (to - from);
  const y = (value) => top + (height - bottom - top) * (1 - value / highest);
  const picture = svg('svg', {viewBox: `0 0 ${width} ${height}`, class: 'chart', role: 'img',
    'aria-label': label});
  for (const tick of [0, highest / 2, highest]) {
    picture.append(
      svg('line', {class: 'grid', x1: left, x2: width - right, y1: y(tick), y2: y(tick)}),
      svg('text', {x: left - 8, y: y(tick) + 4, 'text-anchor': 'end'}, formatBytes(tick)));
  }
  series.forEach(({name, values}, number) => {
    const known = values.map((value, index) => [times[index], value])
      .filter(([time, value]) => time !== undefined && value !== null);
    const path = known.map(([time, value], index) =>
      `${index === 0 ? 'M' : 'L'}${x(time).toFixed(1)} ${y(value).toFixed(1)}`).join('');
    const line = chartLine(number, path);
    line.append(svg('title', null, name));
    picture.append(line);
  });
  const kLabels = 5;
  for (let i = 0, last = null; i <= kLabels; i++) {
    const time = from + Math.round(((to - from) * i) / kLabels);
    if (momentOf(time) !== last) {
      last = momentOf(time);
      picture.append(svg('text', {x: x(time), y: height - 8,
        'text-anchor': i === 0 ? 'start' : i === kLabels ? 'end' : 'middle'}, last));
    }
  }
  return picture;
}

// Entries by minute in the height of a table row, without axes; up to `highest`.
function sparkline(values, highest) {
  const [width, height] = [110, 18];
  const step = width / Math.max(values.length, 1);
  const picture = svg('svg', {viewBox: `0 0 ${width} ${height}`, class: 'sparkline',
    'aria-hidden': 'true'});
  values.forEach((value, minute) => {
    const size = value === 0 ? 0 : Math.max(1, (height * value) / highest);
    picture.append(svg('rect', {x: minute * step, y: height - size, height: size,
      width: Math.max(Math.min(step * 0.85, 14), 0.3)}));
  });
  return picture;
}

// A bar of parts next to each other: parts are {size, colour, label}, drawn to the scale of
// `whole`.
function stackedBar(parts, whole, label) {
  const [width, height] = [1000, 18];
  const kLeastWidth = 2;  // little is not nothing
  const picture = svg('svg', {viewBox: `0 0 ${width} ${height}`, class: 'stacked', role: 'img',
    preserveAspectRatio: 'none', 'aria-label': label});
  let x = 0;
  for (const part of parts) {
    const size = part.size > 0 ? Math.max((width * part.size) / whole, kLeastWidth) : 0;
    picture.append(svg('rect', {x, y: 0, width: size, height, fill: part.colour},
      svg('title', null, part.label)));
    x += size;
  }
  return picture;
}

// A colour between dark blue (0, the oldest) and yellow (1, the youngest), which differ in lightness
// and so in every kind of colour vision.
function ageColour(place) {
  const stops = [[44, 82, 140], [134, 133, 130], [245, 218, 104]];
  const at = Math.max(0, Math.min(1, place)) * (stops.length - 1);
  const from = Math.min(Math.floor(at), stops.length - 2);
  const mixed = stops[from].map((part, i) =>
    Math.round(part + (stops[from + 1][i] - part) * (at - from)));
  return `rgb(${mixed.join(', ')})`;
}
