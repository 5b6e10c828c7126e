// The panel of operations: a list of steps with their forms, a preview of them on what is seen, and the whole image
// to a new file.
import { get, post } from './api.js';
import { addPanel, find, make, onKey, tell } from './dom.js';

/** @typedef {import('./image.js').ImageView} ImageView */
/** @typedef {{kind: string, unit?: string, description: string, default?: any, enum?: string[], minimum?: number, maximum?: number, oneOf?: {minimum?: number, maximum?: number}[]}} Schema */
/** @typedef {{name: string, family: string, summary: string, text: string, parameters: {properties: Record<string, Schema>, required: string[]}}} Operation */
/** A step: values as they are written, images by their numbers. @typedef {{operation: string, values: Record<string, any>, off?: boolean}} Step */

/** Families after which an image is a picture: their results are shown as they will be opened. */
const PICTURES = new Set(['stretch', 'levels', 'curves']);

/** The list of steps, and what it was before. */
class Steps extends EventTarget {
  /** @type {string[]} */
  #past = [];
  /** @type {string[]} */
  #future = [];
  #now = '[]';

  /** @returns {Step[]} */
  get list() {
    return JSON.parse(this.#now);
  }

  /** Changes the list; a change that goes on, as of a slider, is undone as one. @param {Step[]} list @param {boolean} [goesOn] */
  set(list, goesOn = false) {
    const text = JSON.stringify(list);
    if (text === this.#now) return;
    if (!goesOn) this.#past.push(this.#now);
    this.#future = [];
    this.#now = text;
    this.dispatchEvent(new CustomEvent('change', { detail: { values: false } }));
  }

  /** Changes a value, without making the forms anew. @param {number} index @param {string} name @param {any} value @param {boolean} goesOn */
  setValue(index, name, value, goesOn) {
    const list = this.list;
    if (value === '') delete list[index].values[name];
    else list[index].values[name] = value;
    const text = JSON.stringify(list);
    if (text === this.#now) return;
    if (!goesOn) this.#past.push(this.#now);
    this.#future = [];
    this.#now = text;
    this.dispatchEvent(new CustomEvent('change', { detail: { values: true } }));
  }

  /** @param {string[]} from @param {string[]} to */
  #step(from, to) {
    const text = from.pop();
    if (text === undefined) return;
    to.push(this.#now);
    this.#now = text;
    this.dispatchEvent(new CustomEvent('change', { detail: { values: false } }));
  }
  undo() { this.#step(this.#past, this.#future); }
  redo() { this.#step(this.#future, this.#past); }
  get canUndo() { return this.#past.length > 0; }
  get canRedo() { return this.#future.length > 0; }
}

/** What a slider may go through; nothing where limits are too wide for one. @param {Schema} schema */
function rangeOf(schema) {
  const { minimum, maximum } = schema.oneOf ? schema.oneOf[0] : schema;
  if (minimum === undefined || maximum === undefined || maximum - minimum > 1000) return null;
  return { minimum, maximum, step: schema.kind === 'whole number' ? 1 : (maximum - minimum) / 500 };
}

/** @param {ImageView} view @param {(id: number) => void} openFile */
export async function addOperations(view, openFile) {
  const operations = /** @type {Operation[]} */ ((await get('operations')).operations);
  const byName = new Map(operations.map((operation) => [operation.name, operation]));
  const steps = new Steps();

  const search = make('input', { type: 'search', className: 'wide', placeholder: 'find an operation', ariaLabel: 'Find an operation' });
  const choice = make('select', { className: 'wide', size: 6, ariaLabel: 'Operations' });
  const text = make('p', { className: 'faint help' });
  const add = make('button', { type: 'button' }, 'Add');
  const undo = make('button', { type: 'button', title: 'undo (Ctrl+Z)', onclick: () => steps.undo() }, 'Undo');
  const redo = make('button', { type: 'button', title: 'redo (Ctrl+Y)', onclick: () => steps.redo() }, 'Redo');
  const cards = make('ol', { className: 'steps' });
  const preview = make('input', { type: 'checkbox', checked: true });
  const asOpened = make('input', { type: 'checkbox' });
  const note = make('p', { className: 'faint', role: 'status' });
  const name = make('input', { type: 'text', className: 'wide', ariaLabel: 'Name of the new file', value: 'result.fits' });
  const write = make('button', { type: 'button' }, 'Write file');
  const cancel = make('button', { type: 'button', hidden: true }, 'Cancel');
  const bar = make('progress', { max: 1, value: 0, hidden: true, ariaLabel: 'Writing the file' });
  const command = make('textarea', { className: 'wide command', readOnly: true, rows: 3, ariaLabel: 'The same by the command line' });
  const copy = make('button', { type: 'button' }, 'Copy');
  const save = make('button', { type: 'button' }, 'Save recipe');
  const load = make('input', { type: 'file', accept: '.json,application/json', hidden: true });
  const read = make('button', { type: 'button', onclick: () => load.click() }, 'Read recipe');

  const panel = addPanel('Operations', false, search, choice, text,
    make('div', { className: 'row' }, add, undo, redo), cards,
    make('div', { className: 'row' }, make('label', {}, preview, ' preview (o)'), make('label', {}, asOpened, ' stretched anew')), note,
    make('div', { className: 'row' }, write, cancel), name, bar,
    make('p', { className: 'faint' }, 'The same by the command line:'), command, make('div', { className: 'row' }, copy, save, read, load));
  panel.id = 'operations';

  const fill = () => {
    const wanted = search.value.toLowerCase().split(/\s+/).filter(Boolean);
    const found = operations.filter((o) => wanted.every((word) => `${o.name} ${o.summary} ${o.text}`.toLowerCase().includes(word)));
    const families = new Map();
    for (const operation of found) {
      if (!families.has(operation.family)) families.set(operation.family, make('optgroup', { label: operation.family }));
      families.get(operation.family).append(make('option', { value: operation.name, title: operation.summary }, operation.name));
    }
    choice.replaceChildren(...families.values());
    if (found.length > 0) choice.value = found[0].name;
    tellText();
  };
  const tellText = () => {
    const operation = byName.get(choice.value);
    text.textContent = operation ? `${operation.summary}. ${operation.text}` : 'nothing is called so';
    add.disabled = !operation;
  };
  const addStep = () => {
    if (byName.has(choice.value)) steps.set([...steps.list, { operation: choice.value, values: {} }]);
  };
  search.addEventListener('input', fill);
  search.addEventListener('keydown', (event) => event.key === 'Enter' && addStep());
  choice.addEventListener('change', tellText);
  choice.addEventListener('dblclick', addStep);
  add.addEventListener('click', addStep);

  /** @param {number} index @param {string} key @param {Schema} schema @param {any} value @param {boolean} isNeeded */
  function makeField(index, key, schema, value, isNeeded) {
    const label = `${key}${schema.unit ? `, ${schema.unit}` : ''}`;
    const title = `${schema.description}${schema.default !== undefined ? ` (${schema.default} unless told)` : ''}`;
    const known = value ?? '';
    const take = (/** @type {any} */ now, goesOn = false) => steps.setValue(index, key, now, goesOn);
    if (schema.kind === 'choice') {
      const select = make('select', { title, ariaLabel: label }, ...(schema.enum ?? []).map((word) => make('option', { value: word }, word)));
      select.value = known || schema.default;
      select.addEventListener('change', () => take(select.value));
      return make('label', { className: 'field two', title }, make('span', {}, key), select);
    }
    if (schema.kind === '0 or 1') {
      const box = make('input', { type: 'checkbox', title, ariaLabel: label, checked: known === '' ? !!schema.default : known === '1' });
      box.addEventListener('change', () => take(box.checked ? '1' : '0'));
      return make('label', { className: 'field two', title }, make('span', {}, key), box);
    }
    if (schema.kind === 'file') {
      const select = make('select', { title, ariaLabel: label }, make('option', { value: '' }, isNeeded ? 'choose an image' : 'none'));
      get('files').then((files) => {
        select.append(...files.map((/** @type {{id: number, name: string}} */ file) => make('option', { value: String(file.id) }, file.name)));
        select.value = String(known);
      }).catch(tell);
      select.addEventListener('change', () => take(select.value === '' ? '' : Number(select.value)));
      return make('label', { className: 'field two', title }, make('span', {}, key), select);
    }
    const box = make('input', { type: 'text', title, ariaLabel: label, value: String(known), placeholder: String(schema.default ?? (isNeeded ? 'needed' : '')) });
    box.addEventListener('change', () => take(box.value.trim()));
    if (schema.kind === 'left,top,right,bottom') {
      const draw = make('button', { type: 'button', title: 'draw it on the image', onclick: () => drawRect((rect) => { box.value = rect; take(rect); }) }, 'Draw');
      return make('label', { className: 'field three', title }, make('span', {}, key), box, draw);
    }
    const range = rangeOf(schema);
    if (!range) return make('label', { className: 'field two', title }, make('span', {}, key), box);
    const start = Number(known === '' ? schema.default ?? range.minimum : known);
    const slider = make('input', { type: 'range', min: String(range.minimum), max: String(range.maximum), step: String(range.step), value: String(start), ariaLabel: label, title });
    let moves = false;
    slider.addEventListener('input', () => {
      box.value = String(Number(Number(slider.value).toPrecision(4)));
      take(box.value, moves);
      moves = true;
    });
    slider.addEventListener('change', () => (moves = false));
    box.addEventListener('change', () => (slider.value = box.value));
    return make('label', { className: 'field', title }, make('span', {}, key), slider, box);
  }

  /** The next drag on the image is a rectangle of the file's pixels. @param {(rect: string) => void} take */
  function drawRect(take) {
    view.catchDrags(true);
    const end = (/** @type {Event} */ event) => {
      view.removeEventListener('dragend', end);
      view.catchDrags(false);
      const { from, to } = /** @type {CustomEvent} */ (event).detail;
      const height = view.info?.height ?? 0;
      const [left, right] = [Math.floor(Math.min(from.x, to.x)), Math.ceil(Math.max(from.x, to.x))];
      let [top, bottom] = [Math.floor(Math.min(from.y, to.y)), Math.ceil(Math.max(from.y, to.y))];
      if (view.info?.overturned) [top, bottom] = [height - bottom, height - top];
      take([Math.max(left, 0), Math.max(top, 0), Math.min(right, view.info?.width ?? 0), Math.min(bottom, height)].join(','));
    };
    view.addEventListener('dragend', end);
  }

  /** @param {Step} step @param {number} index @param {number} count */
  function makeCard(step, index, count) {
    const operation = /** @type {Operation} */ (byName.get(step.operation));
    const { properties, required } = operation.parameters;
    const change = (/** @type {(list: Step[]) => void} */ how) => {
      const list = steps.list;
      how(list);
      steps.set(list);
    };
    const move = (/** @type {number} */ by) => change((list) => list.splice(index + by, 0, ...list.splice(index, 1)));
    const button = (/** @type {string} */ sign, /** @type {string} */ title, /** @type {() => void} */ onclick, disabled = false) =>
      make('button', { type: 'button', title, ariaLabel: `${title}: ${step.operation}`, onclick, disabled }, sign);
    const on = make('input', { type: 'checkbox', checked: !step.off, title: 'on or off', ariaLabel: `${step.operation} is on` });
    on.addEventListener('change', () => change((list) => { list[index].off = !on.checked; }));
    return make('li', { className: step.off ? 'off' : '' },
      make('div', { className: 'row head' }, make('label', { title: operation.summary }, on, ` ${step.operation}`),
        make('span', { className: 'gap' }), button('↑', 'earlier', () => move(-1), index === 0),
        button('↓', 'later', () => move(1), index === count - 1),
        button('×', 'remove', () => change((list) => list.splice(index, 1)))),
      ...Object.entries(properties).map(([key, schema]) => makeField(index, key, schema, step.values[key], required.includes(key))));
  }

  const wanted = () => steps.list.filter((step) => !step.off).map(({ operation, values }) => ({ operation, values }));

  function writeCards() {
    const list = steps.list;
    cards.replaceChildren(...list.map((step, i) => makeCard(step, i, list.length)));
    undo.disabled = !steps.canUndo;
    redo.disabled = !steps.canRedo;
  }

  /** @type {{image: ImageBitmap, rect: number[]} | null} */
  let shown = null;
  view.addLayer((context) => {
    if (!shown) return;
    const [left, top, right, bottom] = shown.rect;
    const from = view.toStage(left, top), to = view.toStage(right, bottom);
    context.imageSmoothingEnabled = view.scale() < 1;
    context.drawImage(shown.image, from.x, from.y, to.x - from.x, to.y - from.y);
  });

  /** @type {AbortController | null} */
  let asking = null;
  let waiting = 0;
  function hide() {
    shown?.image.close();
    shown = null;
    note.textContent = '';
    view.redraw();
  }
  async function drawPreview() {
    asking?.abort();
    const info = view.info, list = wanted();
    if (!info || !panel.open || !preview.checked || list.length === 0) return hide();
    const own = (asking = new AbortController());
    const seen = view.seen();
    const isPicture = asOpened.checked || list.some((step) => PICTURES.has(byName.get(step.operation)?.family ?? ''));
    const body = {
      id: info.id, developed: info.developed, steps: list, seen: [seen.left, seen.top, seen.right, seen.bottom],
      scale: view.scale(), as_is: !isPicture, levels: view.shown.levels, stretch: view.shown.steps, linked: view.shown.linked, colours: view.shown.colours,
    };
    try {
      const answer = await fetch('operations/preview', {
        method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body), signal: own.signal });
      if (!answer.ok) throw new Error((await answer.json()).error);
      const rect = (answer.headers.get('X-Preview') ?? '').split(',').map(Number);
      const image = await createImageBitmap(await answer.blob());
      if (own.signal.aborted) return image.close();
      shown?.image.close();
      shown = { image, rect };
      note.textContent = (rect[5] ? 'Preview by the whole image' : 'Preview of what is seen') +
        (rect[4] > 1 ? `, ${rect[4]} times smaller: near to the result, exact at 1:1.` : isPicture ? ', stretched nearly as the file will be when it is opened.' : ', as the result will be.');
      panel.dataset.preview = String(Number(panel.dataset.preview ?? 0) + 1);
      view.redraw();
    } catch (error) {
      if (own.signal.aborted) return;
      hide();
      note.textContent = error instanceof Error ? error.message : String(error);
    }
  }
  let checks = 0;
  async function check() {
    const own = ++checks;
    const info = view.info, list = wanted();
    if (!info || !panel.open || list.length === 0) {
      command.value = '';
      return null;
    }
    try {
      const checked = await post('operations/check', { id: info.id, steps: list, name: name.value });
      if (own === checks) command.value = checked.command;
      return checked;
    } catch (error) {
      if (own !== checks) return null;
      command.value = '';
      note.textContent = error instanceof Error ? error.message : String(error);
      return null;
    }
  }
  function renew() {
    clearTimeout(waiting);
    waiting = window.setTimeout(() => void Promise.all([drawPreview(), check()]), 60);
  }

  steps.addEventListener('change', (event) => {
    if (!(/** @type {CustomEvent} */ (event).detail.values)) writeCards();
    undo.disabled = !steps.canUndo;
    redo.disabled = !steps.canRedo;
    renew();
  });
  for (const event of ['open', 'move', 'exact', 'shown']) view.addEventListener(event, renew);
  view.addEventListener('open', () => {
    hide();
    ++checks;
    command.value = '';  // it names the image before
  });
  for (const input of [preview, asOpened, name]) input.addEventListener('change', renew);
  panel.addEventListener('toggle', renew);
  onKey('o', 'preview of operations', () => { preview.checked = !preview.checked; renew(); });
  document.addEventListener('keydown', (event) => {
    const isWriting = /** @type {HTMLElement} */ (event.target).matches('input[type=text], input[type=search], textarea');
    if (!panel.open || isWriting || !(event.ctrlKey || event.metaKey)) return;
    if (event.key === 'z' && !event.shiftKey) steps.undo();
    else if (event.key === 'y' || event.key === 'Z' || (event.key === 'z' && event.shiftKey)) steps.redo();
    else return;
    event.preventDefault();
  });

  /** @type {AbortController | null} */
  let writing = null;
  cancel.addEventListener('click', () => writing?.abort());
  write.addEventListener('click', async () => {
    const info = view.info, list = wanted();
    const checked = await check();
    if (!info || !checked || list.length === 0) return;
    if (checked.exists && !confirm(`${name.value} is there already. Replace it?`)) return;
    writing = new AbortController();
    write.disabled = true;
    cancel.hidden = bar.hidden = false;
    bar.value = 0;
    try {
      const body = JSON.stringify({ id: info.id, steps: list, name: name.value, overwrite: checked.exists });
      const answer = await fetch('operations/apply', {
        method: 'POST', headers: { 'Content-Type': 'application/json' }, body, signal: writing.signal });
      if (!answer.ok || !answer.body) throw new Error((await answer.json()).error);
      const reader = answer.body.pipeThrough(new TextDecoderStream()).getReader();
      let rest = '';
      for (;;) {
        const { done, value } = await reader.read();
        if (done) break;
        rest += value;
        const events = rest.split('\n\n');
        rest = events.pop() ?? '';
        for (const event of events) {
          const [, kind, data] = event.match(/^event: (\w+)\ndata: (.*)$/s) ?? [];
          const told = JSON.parse(data);
          if (kind === 'progress') bar.value = told.step / told.total;
          else if (kind === 'warning') note.textContent = told.text;
          else if (kind === 'failed') throw new Error(told.error);
          else if (kind === 'done') {
            find('status').dataset.written = told.name;
            openFile(told.id);
          }
        }
      }
    } catch (error) {
      tell(writing.signal.aborted ? 'cancelled: no file was written' : error);
    } finally {
      write.disabled = false;
      cancel.hidden = bar.hidden = true;
    }
  });

  copy.addEventListener('click', async () => {
    command.select();
    await navigator.clipboard?.writeText(command.value).catch(() => document.execCommand('copy'));
  });
  save.addEventListener('click', async () => {
    const checked = await check();
    if (!checked) return;
    const link = make('a', { href: URL.createObjectURL(new Blob([checked.recipe], { type: 'application/json' })), download: 'recipe.json' });
    link.click();
    URL.revokeObjectURL(link.href);
  });
  load.addEventListener('change', async () => {
    try {
      const file = load.files?.[0];
      if (file) steps.set(await post('operations/read', { recipe: await file.text() }));
    } catch (error) {
      tell(error);
    }
    load.value = '';
  });

  fill();
  writeCards();
}
