// The stacks of a session as the tree that a flame graph shows. The stacks are sorted by their
// frames, so each node of the tree is a range of them at a depth. Nodes are made when they are asked
// for, which keeps 100 thousand stacks as quick as ten.

class StackTree {
  // `session` has `stacks` and the `frames` that they refer to, and may have a name for stacks that are
  // not known. `counts` weighs the stacks of the session by index; those of weight 0 are omitted.
  // `without` are the entries that have no stack. Frames go from the outermost caller to the contended
  // one, or the other way when `fromContended`.
  constructor(session, counts, without, fromContended) {
    const unknown = session.frames.length;
    this.names = [...session.frames, session.unknownStack ?? kUnknownStack, kNoStack];
    const rank = new Int32Array(this.names.length);
    [...this.names.keys()]
      .sort((a, b) => (this.names[a] < this.names[b] ? -1 : this.names[a] > this.names[b] ? 1 : 0))
      .forEach((frame, place) => { rank[frame] = place; });
    const used = [];
    session.stacks.forEach((stack, index) => {
      if (counts[index] > 0) {
        const frames = stack.frames ?? [unknown];
        used.push({frames: fromContended ? frames : [...frames].reverse(), count: counts[index],
          contended: frames[0]});
      }
    });
    if (without > 0) {
      used.push({frames: [unknown + 1], count: without, contended: unknown + 1});
    }
    used.sort((a, b) => StackTree.compare(a.frames, b.frames, rank));
    this.stacks = used;
    this.before = new Float64Array(used.length + 1);  // the counts of all stacks before each one
    used.forEach((stack, i) => { this.before[i + 1] = this.before[i] + stack.count; });
    this.depth = used.reduce((most, stack) => Math.max(most, stack.frames.length), 0);
    this.root = {parent: null, depth: 0, first: 0, end: used.length, name: 'All stacks'};
  }

  static compare(a, b, rank) {
    const length = Math.min(a.length, b.length);
    for (let i = 0; i < length; i++) {
      if (a[i] !== b[i]) {
        return rank[a[i]] - rank[b[i]];
      }
    }
    return a.length - b.length;
  }

  total(node) {
    return this.before[node.end] - this.before[node.first];
  }

  // The nodes one frame deeper, in the order of their names; those with less than `least` entries
  // are skipped.
  children(node, least = 0) {
    const {depth} = node;
    const nodes = [];
    let first = node.first;
    while (first < node.end && this.stacks[first].frames.length === depth) {
      first++;  // stacks that end here sort before those that go on
    }
    while (first < node.end) {
      const frame = this.stacks[first].frames[depth];
      const end = this.endOfRun(first, node.end, depth, frame);
      if (this.before[end] - this.before[first] >= least) {
        nodes.push({parent: node, depth: depth + 1, first, end, frame, name: this.names[frame]});
      }
      first = end;
    }
    return nodes;
  }

  // Where the stacks with this frame at this depth end, found by steps that double.
  endOfRun(first, end, depth, frame) {
    const same = (i) => this.stacks[i].frames[depth] === frame;
    let [low, step] = [first, 1];
    while (low + step < end && same(low + step)) {
      low += step;
      step *= 2;
    }
    let high = Math.min(low + step, end);
    while (high - low > 1) {
      const middle = (low + high) >> 1;
      [low, high] = same(middle) ? [middle, high] : [low, middle];
    }
    return high;
  }

  // For each method: entries of stacks that hold it, and entries where it is the contended one.
  methods() {
    const total = new Float64Array(this.names.length);
    const contended = new Float64Array(this.names.length);
    const lastStack = new Int32Array(this.names.length).fill(-1);
    this.stacks.forEach((stack, index) => {
      for (const frame of stack.frames) {
        if (lastStack[frame] !== index) {  // once for each stack, for recursion
          lastStack[frame] = index;
          total[frame] += stack.count;
        }
      }
      if (stack.frames.length > 0) {
        contended[stack.contended] += stack.count;
      }
    });
    return this.names.map((name, frame) => (
      {name, frame, total: total[frame], contended: contended[frame]}))
      .filter((row) => row.total > 0);
  }

  // Entries of the stacks that hold any of the frames (a flag for each frame).
  matching(flags) {
    return sum(this.stacks.filter((stack) => stack.frames.some((frame) => flags[frame]))
      .map((stack) => stack.count));
  }
}
