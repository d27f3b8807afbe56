// Numbers and names as the page shows them.

const numberFormat = new Intl.NumberFormat('en');
const textOrder = new Intl.Collator('en');
const formatNumber = (value) => numberFormat.format(value);
const numberOrNone = (value) => (value === null ? '–' : formatNumber(value));
const formatSeconds = (value) => `${formatNumber(value)} s`;

// 1234 of 5000 as "25 %", "<1 %" for little and "" of nothing.
function formatShare(part, whole) {
  if (whole <= 0) {
    return '';
  }
  const percent = (100 * part) / whole;
  return percent > 0 && percent < 1 ? '<1 %' : `${Math.round(percent)} %`;
}

// Bytes, given as a number or as decimal text, with a binary unit.
function formatBytes(bytes) {
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB', 'EiB'];
  let value = Number(bytes);
  let unit = 0;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    unit++;
  }
  return `${value >= 100 || unit === 0 ? Math.round(value) : value.toFixed(1)} ${units[unit]}`;
}

// Bytes to the last digit, for decimal texts that pass what a number holds exactly.
const formatExactBytes = (bytes) => numberFormat.format(BigInt(bytes));

// "2026-11-21T14:35:15.123Z" as "2026-11-21 14:35:15.123".
const formatTime = (time) => (time ?? '').replace('T', ' ').replace(/Z$/, '');

// A formatTime that omits the day when all times are of the same.
function timeFormatFor(times) {
  const days = new Set(times.filter(Boolean).map((time) => time.split('T')[0]));
  return days.size === 1 ? (time) => formatTime(time).replace(/^\S+ /, '') : formatTime;
}

// "com.example.Stock@9" as "Stock@9", and "a.b.C.m" as "C.m".
function shortName(name, parts = 1) {
  const pieces = name.split('.');
  return pieces.slice(-parts).join('.');
}

// "a.b.C.m" as "C.m", and "a.b.C.m(C.java:7)" as "C.m:7".
function shortMethod(name) {
  const line = /:\d+(?=\)$)/.exec(name)?.[0] ?? '';
  return shortName(methodName(name), 2) + line;
}

// "a.b.C.m(C.java:7)" as "a.b.C.m"; what stands in brackets as a whole stays.
function methodName(frame) {
  const place = frame.indexOf('(', 1);
  return place < 0 || frame.startsWith('(') ? frame : frame.slice(0, place);
}

const kNanosOfMilli = 1e6;
const kNanosOfSecond = 1e9;

// Nanoseconds as milliseconds, with a tenth where there are few.
function formatMillis(nanos) {
  const millis = nanos / kNanosOfMilli;
  return millis >= 100 || nanos === 0 ? formatNumber(Math.round(millis))
    : millis < 0.1 ? '<0.1' : millis.toFixed(1);
}

// Nanoseconds in the unit that suits them.
function formatNanos(nanos) {
  const units = [['ns', 1, 1e3], ['µs', 1e3, 1e6], ['ms', 1e6, 1e9], ['s', 1e9, 120e9],
    ['min', 60e9, 120 * 60e9], ['h', 3600e9, Infinity]];
  const [unit, size] = units.find(([, , end]) => nanos < end);
  const value = nanos / size;
  return `${value >= 100 || unit === 'ns' ? formatNumber(Math.round(value)) : value.toFixed(1)} ${
    unit}`;
}

// Milliseconds since 1970 as "14:35:15" UTC, with the day, unless all of `times` are of one day.
function momentFormatFor(times) {
  const textOf = (time) => new Date(time).toISOString();
  const format = timeFormatFor(times.map(textOf));
  return (time) => format(textOf(time)).replace(/\.\d+$/, '');
}

const plural = (count, one, many) => `${formatNumber(count)} ${count === 1 ? one : many}`;

// What stands for a name that is empty, as those of most virtual threads are.
const named = (name) => (name === '' ? '(no name)' : name);

// Math.max with as many arguments as a list has values would overflow the stack for long ones.
const maximum = (values) => values.reduce((highest, value) => Math.max(highest, value), 0);

const sum = (values) => values.reduce((total, value) => total + value, 0);
