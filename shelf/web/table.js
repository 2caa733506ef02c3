// The virtual table: row geometry from prefix sums, DOM only for the rows in
// view (plus a few above and below), cells kept by row while the server keeps them.

const OVERSCAN = 3;
const LEAVE_MS = 220;

function decode(runs) {
  const heights = [];
  for (const [h, n] of runs ?? []) for (let i = 0; i < n; i++) heights.push(h);
  return heights;
}

class Section {
  constructor(index, heights) {
    this.index = index;
    this.offset = 0;            // top of the section within the table
    this.cells = new Map();     // row → {id, el, sec, row}
    this.rendered = new Map();  // row → row element
    this.entering = new Set();  // rows inserted since the last sync
    this.setHeights(heights);
  }

  setHeights(heights) {
    this.heights = heights;
    this.prefix = new Float64Array(heights.length + 1);
    for (let i = 0; i < heights.length; i++) this.prefix[i + 1] = this.prefix[i] + heights[i];
  }

  get count() { return this.heights.length; }
  get total() { return this.prefix[this.heights.length]; }

  // The last row whose top is at or above y.
  rowAt(y) {
    let lo = 0, hi = this.count - 1;
    while (lo < hi) {
      const mid = (lo + hi + 1) >> 1;
      if (this.prefix[mid] <= y) lo = mid; else hi = mid - 1;
    }
    return lo;
  }
}

const key = (s, r) => `${s}:${r}`;

export class Table {
  constructor(scroller, views, send) {
    this.scroller = scroller;
    this.views = views;
    this.send = send;
    this.content = scroller.appendChild(document.createElement('div'));
    this.content.className = 'table-content';
    this.sections = [];
    this.byIndex = new Map();
    this.byId = new Map();       // view id → cell record
    this.notes = new Map();      // row of section 0 → what the host says about it
    this.selection = new Set();  // "section:row"
    this.selectable = 'none';
    this.sent = new Map();       // section → last viewport sent
    this.seen = new Set();       // every cell id ever received
    this.frame = 0;

    scroller.addEventListener('scroll', () => this.schedule(), { passive: true });
    new ResizeObserver(() => this.schedule()).observe(scroller);
    scroller.addEventListener('click', (e) => this.tap(e));
    scroller.addEventListener('keydown', (e) => {
      if (!e.target.classList?.contains('row')) return;
      if (e.key === 'Enter' || e.key === ' ') {
        e.preventDefault();
        this.tap(e);
      } else if (e.key === 'ArrowDown' || e.key === 'ArrowUp') {
        e.preventDefault();
        this.moveFocus(e.target, e.key === 'ArrowDown' ? 1 : -1);
      }
    });
  }

  setRoles() {
    const options = this.selectable !== 'none' && !this.rich;
    this.content.setAttribute('role', options ? 'listbox' : 'list');
    this.content.toggleAttribute('aria-multiselectable', options && this.selectable === 'multiple');
  }

  // Focuses the row `step` rows from `el`'s, scrolling it into view (and so into the DOM).
  moveFocus(el, step) {
    const sec = this.byIndex.get(Number(el.dataset.section));
    const r = Number(el.dataset.row) + step;
    if (!sec || !(r >= 0 && r < sec.count)) return;
    const top = sec.offset + sec.prefix[r], bottom = top + sec.heights[r];
    const view = this.scroller;
    if (top < view.scrollTop) view.scrollTop = top;
    else if (bottom > view.scrollTop + view.clientHeight) view.scrollTop = bottom - view.clientHeight;
    this.refresh();
    sec.rendered.get(r)?.focus();
  }

  setNotes(notes) {
    this.notes = notes;
    this.placeAll();
  }

  schedule() {
    if (!this.frame) this.frame = requestAnimationFrame(() => { this.frame = 0; this.refresh(); });
  }

  setScreen(screen, sameScreen) {
    this.content.replaceChildren();
    this.byId.clear();
    const data = [...(screen.sections ?? [])].sort((a, b) => a.section - b.section);
    this.sections = data.map((d) => new Section(d.section, decode(d.heights)));
    this.byIndex = new Map(this.sections.map((s) => [s.index, s]));
    this.selectable = screen.selectable ?? 'none';
    this.content.setAttribute('aria-labelledby', 'title');
    // Rows whose cells hold links or buttons cannot be options (an option's content is not
    // interactive): such a screen is a list whose rows can still be tapped.
    this.rich = false;
    this.setRoles();
    this.scroller.classList.toggle('selectable', this.selectable !== 'none');
    for (const d of data) this.setCells(d.section, d.cells ?? []);
    this.setSelection(screen.selection ?? []);
    this.layout();
    this.sent.clear();
    if (!sameScreen) this.scroller.scrollTop = 0;
    this.refresh();
  }

  apply(op) {
    const sec = this.byIndex.get(op.section);
    switch (op.op) {
      case 'cells': this.setCells(op.section, op.cells ?? []); break;
      case 'dropCells': for (const r of op.rows ?? []) this.forget(sec?.cells.get(r), true); break;
      case 'insertRows': if (sec) this.insertRows(sec, op.rows ?? [], op.heights ?? []); break;
      case 'deleteRows': if (sec) this.deleteRows(sec, op.rows ?? []); break;
      case 'reload': if (sec) this.reload(sec, decode(op.heights)); break;
      case 'selection': this.setSelection(op.rows ?? []); break;
    }
  }

  rowsInDom() {
    let n = 0;
    for (const sec of this.sections) n += sec.rendered.size;
    return n;
  }

  // Geometry and rendering

  layout() {
    let y = 0;
    for (const sec of this.sections) { sec.offset = y; y += sec.total; }
    this.content.style.height = `${y}px`;
  }

  refresh() {
    const top = this.scroller.scrollTop;
    const bottom = top + this.scroller.clientHeight;
    for (const sec of this.sections) {
      let first = 0, last = -1;
      const a = top - sec.offset, b = bottom - sec.offset;
      if (sec.count > 0 && b > 0 && a < sec.total) {
        first = Math.max(0, sec.rowAt(Math.max(0, a)) - OVERSCAN);
        last = Math.min(sec.count - 1, sec.rowAt(b) + OVERSCAN);
      }
      this.sync(sec, first, last);
      if (last >= first && this.sent.get(sec.index) !== key(first, last)) {
        this.sent.set(sec.index, key(first, last));
        this.send({ t: 'viewport', section: sec.index, first, last });
      }
    }
    this.views.scheduleFlush();
  }

  sync(sec, first, last) {
    for (const [r, el] of sec.rendered) {
      if (r < first || r > last) { el.remove(); sec.rendered.delete(r); }
    }
    for (let r = first; r <= last; r++) {
      if (sec.rendered.has(r)) continue;
      const el = document.createElement('div');
      el.className = 'row';
      el.dataset.section = sec.index;
      if (this.selectable !== 'none') el.tabIndex = 0;
      el.setAttribute('role', this.selectable !== 'none' && !this.rich ? 'option' : 'listitem');
      if (sec.entering.has(r)) {
        el.classList.add('row-enter');
        el.addEventListener('animationend', () => el.classList.remove('row-enter'), { once: true });
      }
      this.place(sec, r, el);
      const cell = sec.cells.get(r);
      if (cell) el.append(cell.el);
      sec.rendered.set(r, el);
      this.content.append(el);
    }
    sec.entering.clear();
  }

  place(sec, r, el) {
    el.dataset.row = r;
    el.style.top = `${sec.offset + sec.prefix[r]}px`;
    el.style.height = `${sec.heights[r]}px`;
    const selected = this.selection.has(key(sec.index, r));
    el.classList.toggle('selected', selected);
    if (this.selectable !== 'none' && !this.rich) el.setAttribute('aria-selected', String(selected));
    const note = sec.index === 0 ? this.notes.get(r) : undefined;
    if (note) {
      el.title = note;
      el.setAttribute('aria-description', note);
    } else {
      el.removeAttribute('title');
      el.removeAttribute('aria-description');
    }
  }

  placeAll() {
    for (const sec of this.sections) for (const [r, el] of sec.rendered) this.place(sec, r, el);
  }

  // Cells

  setCells(s, cells) {
    const sec = this.byIndex.get(s);
    if (!sec) return;
    for (const { row, view } of cells) {
      if (!view || !(row >= 0 && row < sec.count)) continue;
      this.forget(this.byId.get(view.id), true);  // a reused cell leaves its old row
      this.forget(sec.cells.get(row), true);
      const rec = { id: view.id, el: this.views.build(view), sec, row };
      this.views.nameControls(rec.el);
      if (!this.rich && rec.el.querySelector('a, button')) {
        this.rich = true;
        this.setRoles();
        for (const s of this.sections) {
          for (const r of s.rendered.values()) { r.setAttribute('role', 'listitem'); r.removeAttribute('aria-selected'); }
        }
      }
      this.seen.add(view.id);
      sec.cells.set(row, rec);
      this.byId.set(view.id, rec);
      sec.rendered.get(row)?.replaceChildren(rec.el);
    }
  }

  forget(rec, detach) {
    if (!rec) return;
    if (rec.sec.cells.get(rec.row) === rec) rec.sec.cells.delete(rec.row);
    if (this.byId.get(rec.id) === rec) this.byId.delete(rec.id);
    if (detach) rec.el.remove();
    this.views.release(rec.el);
  }

  // Row insertion and deletion: `map` takes every old row to its new index, or -1.

  insertRows(sec, rows, heights) {
    const n = sec.count, total = n + rows.length;
    const next = new Array(total), map = new Int32Array(n);
    for (let i = 0, j = 0, o = 0; i < total; i++) {
      if (j < rows.length && rows[j] === i) next[i] = heights[j++] ?? 0;
      else if (o < n) { map[o] = i; next[i] = sec.heights[o++]; }
      else next[i] = 0;
    }
    this.remap(sec, map, next);
    for (const r of rows) sec.entering.add(r);
  }

  deleteRows(sec, rows) {
    const gone = new Set(rows), next = [], map = new Int32Array(sec.count);
    for (let i = 0; i < sec.count; i++) {
      if (gone.has(i)) map[i] = -1;
      else { map[i] = next.length; next.push(sec.heights[i]); }
    }
    this.remap(sec, map, next);
  }

  remap(sec, map, heights) {
    const cells = new Map();
    for (const [r, rec] of sec.cells) {
      if (map[r] < 0) { this.forget(rec, false); continue; }  // leaves with its row
      rec.row = map[r];
      cells.set(rec.row, rec);
    }
    sec.cells = cells;

    const rendered = new Map();
    for (const [r, el] of sec.rendered) {
      if (map[r] < 0) this.leave(el);
      else rendered.set(map[r], el);
    }
    sec.rendered = rendered;

    const selection = new Set();
    for (const k of this.selection) {
      const [s, r] = k.split(':').map(Number);
      if (s !== sec.index) selection.add(k);
      else if (map[r] >= 0) selection.add(key(s, map[r]));
    }
    this.selection = selection;
    sec.entering = new Set([...sec.entering].map((r) => map[r]).filter((r) => r >= 0));

    sec.setHeights(heights);
    this.layout();
    this.placeAll();
  }

  leave(el) {
    el.classList.replace('row', 'row-leaving');
    el.removeAttribute('data-row');
    el.removeAttribute('data-section');
    setTimeout(() => el.remove(), LEAVE_MS);
  }

  reload(sec, heights) {
    for (const rec of [...sec.cells.values()]) this.forget(rec, true);
    for (const el of sec.rendered.values()) el.remove();
    sec.rendered.clear();
    sec.entering.clear();
    sec.setHeights(heights);
    this.layout();
    this.placeAll();
  }

  // Selection

  setSelection(rows) {
    this.selection = new Set(rows.map(([s, r]) => key(s, r)));
    this.placeAll();
  }

  tap(e) {
    if (this.selectable === 'none' || e.target.closest('button, a, input, [role="switch"]')) return;
    const row = e.target.closest('.row');
    if (!row) return;
    const section = Number(row.dataset.section), r = Number(row.dataset.row);
    const k = key(section, r);
    const selected = this.selectable === 'multiple' ? !this.selection.has(k) : true;
    // Shown at once; the server's selection op has the last word.
    if (this.selectable === 'single') this.selection = new Set([k]);
    else if (selected) this.selection.add(k);
    else this.selection.delete(k);
    this.placeAll();
    this.send({ t: 'select', section, row: r, selected });
  }
}
