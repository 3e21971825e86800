// The list of items: only what is seen is asked for and stands in the document, so that 100,000 items cost no more than
// twenty.

const BLOCK = 100;        // items asked for at once
const MOST_BLOCKS = 20;   // kept; what was seen longest ago goes first

export class ItemList {
  // ask(path): the monitor's answer; isChosen(id), choose(id): which items have a trend.
  constructor(ask, isChosen, choose) {
    Object.assign(this, { ask, isChosen, choose, total: 0, blocks: new Map(), rows: new Map(), asked: 0 });
    for (const id of ['view', 'space', 'table', 'items-count', 'items-empty', 'filter', 'filter-name', 'filter-site', 'filter-quality']) {
      this[id] = document.getElementById(id);
    }
    this.view.addEventListener('scroll', () => this.soon(() => this.show()), { passive: true });
    new ResizeObserver(() => this.show()).observe(this.view);
    this.filter.addEventListener('submit', event => event.preventDefault());
    this.filter.addEventListener('input', () => {
      clearTimeout(this.typing);
      this.typing = setTimeout(() => this.restart().catch(() => {}), 250);
    });
  }

  soon(action) {
    if (!this.waiting) {
      this.waiting = requestAnimationFrame(() => {
        this.waiting = null;
        action();
      });
    }
  }

  setSites(names) {
    const wanted = ['', ...names];
    const select = this['filter-site'];
    if (wanted.join('\n') !== [...select.options].map(option => option.value).join('\n')) {
      const chosen = select.value;
      select.replaceChildren(...wanted.map(name => new Option(name || 'All', name)));
      select.value = wanted.includes(chosen) ? chosen : '';
    }
  }

  restart() {
    this.asked += 1;  // answers to the filter before are of no use any more
    this.blocks.clear();
    this.view.scrollTop = 0;
    return this.refresh();
  }

  // What is seen, afresh.
  async refresh() {
    const asked = this.asked;
    const [first, last] = this.seen();
    const numbers = [];
    for (let block = Math.floor(first / BLOCK); block <= Math.floor(Math.max(first, last - 1) / BLOCK); ++block) {
      numbers.push(block);
    }
    for (const number of numbers) {
      await this.load(number, asked);
    }
    for (const number of this.blocks.keys()) {
      if (!numbers.includes(number)) {
        this.blocks.delete(number);  // it is older than what is seen: asked for again when it is scrolled to
      }
    }
    this.show();
  }

  async load(number, asked = this.asked) {
    const query = new URLSearchParams({
      site: this['filter-site'].value, name: this['filter-name'].value.trim(), quality: this['filter-quality'].value,
      from: number * BLOCK, count: BLOCK,
    });
    const answer = await this.ask(`/api/items?${query}`);
    if (asked !== this.asked) {
      return;
    }
    this.blocks.delete(number);
    this.blocks.set(number, answer.items);
    if (this.blocks.size > MOST_BLOCKS) {
      this.blocks.delete(this.blocks.keys().next().value);
    }
    this.total = answer.total;
  }

  rowHeight() {
    return parseFloat(getComputedStyle(document.documentElement).getPropertyValue('--row')) *
      parseFloat(getComputedStyle(document.documentElement).fontSize);
  }

  seen() {
    const height = this.rowHeight();
    const first = Math.max(0, Math.floor(this.view.scrollTop / height));
    return [first, Math.min(this.total, first + Math.ceil(this.view.clientHeight / height) + 1)];
  }

  show() {
    const height = this.rowHeight();
    this.space.style.height = `${this.total * height}px`;
    const [first, last] = this.seen();
    for (const [index, row] of this.rows) {
      // A row with the keyboard's focus stays until the focus goes elsewhere.
      if ((index < first || index >= last) && (index >= this.total || !row.contains(document.activeElement))) {
        row.remove();
        this.rows.delete(index);
      }
    }
    for (let index = first; index < last; ++index) {
      const item = this.blocks.get(Math.floor(index / BLOCK))?.[index % BLOCK];
      this.fill(this.row(index, height), item);
      if (!item) {
        this.want(Math.floor(index / BLOCK));
      }
    }
    this.table.style.setProperty('--bar', `${this.view.offsetWidth - this.view.clientWidth}px`);  // the scroll bar's width
    this.table.setAttribute('aria-rowcount', this.total + 1);
    this.table.hidden = this.total === 0;
    this['items-empty'].hidden = this.total > 0;
    this['items-count'].textContent = `${this.total.toLocaleString()} ${this.isFiltered() ? 'match' : 'in all'}`;
  }

  isFiltered() {
    return Boolean(this['filter-name'].value.trim() || this['filter-site'].value || this['filter-quality'].value);
  }

  // One block at a time, and of those scrolled past only the last.
  async want(number) {
    this.wanted = number;
    if (this.loading) {
      return;
    }
    this.loading = true;
    try {
      while (this.wanted !== null) {
        const next = this.wanted;
        this.wanted = null;
        await this.load(next);
      }
    } catch {
      return;  // the state above says why; the next refresh asks again
    } finally {
      this.loading = false;
    }
    this.soon(() => this.show());
  }

  row(index, height) {
    let row = this.rows.get(index);
    if (!row) {
      row = document.createElement('div');
      row.className = 'row';
      row.setAttribute('role', 'row');
      row.setAttribute('aria-rowindex', index + 2);
      for (const name of ['name', 'value', 'quality', 'time', 'pick']) {
        const cell = row.appendChild(document.createElement('span'));
        cell.className = name;
        cell.setAttribute('role', 'cell');
      }
      const button = row.lastChild.appendChild(document.createElement('button'));
      button.type = 'button';
      button.addEventListener('click', () => row.item && this.choose(row.item));
      // In the order of their places, which is the keyboard's order.
      const after = [...this.rows.keys()].filter(other => other > index).sort((a, b) => a - b)[0];
      this.space.insertBefore(row, after === undefined ? null : this.rows.get(after));
      this.rows.set(index, row);
    }
    row.style.height = `${height}px`;
    row.style.transform = `translateY(${index * height}px)`;
    return row;
  }

  fill(row, item) {
    const [name, value, quality, time, pick] = row.children;
    row.item = item?.id;
    set(name, item ? item.id : '…');
    name.title = item ? item.id : '';
    set(value, item ? valueText(item.value) : '');
    value.title = item?.type ?? '';
    set(quality, item ? item.qualityText : '');
    quality.title = item?.qualityText ?? '';
    quality.className = `quality ${item ? kindOf(item.quality) : ''}`;
    set(time, item ? timeText(item.time) : '');
    time.title = item?.time ?? '';
    const chosen = Boolean(item) && this.isChosen(item.id);
    const button = pick.firstChild;
    button.hidden = !item;
    button.setAttribute('aria-pressed', chosen);
    button.setAttribute('aria-label', item ? `Trend of ${item.id}` : '');
    set(button, chosen ? '✓' : '+');
  }
}

export function set(element, text) {
  if (element.textContent !== String(text)) {
    element.textContent = text;
  }
}

// The two highest bits of the quality's low byte decide.
export function kindOf(quality) {
  return { 0xC0: 'good', 0x40: 'uncertain' }[quality & 0xC0] ?? 'bad';
}

export function valueText(value) {
  if (value === null || value === undefined) {
    return '–';
  }
  return typeof value === 'number' ? String(Number(value.toPrecision(7))) : String(value);
}

// The time of day alone for today's.
export function timeText(time) {
  if (!time) {
    return 'never';
  }
  const date = new Date(time);
  const clock = date.toLocaleTimeString([], { hour: '2-digit', minute: '2-digit', second: '2-digit', hourCycle: 'h23' });
  return date.toDateString() === new Date().toDateString() ? clock : `${date.toLocaleDateString()} ${clock}`;
}
