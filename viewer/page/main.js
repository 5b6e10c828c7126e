// The page: its tools, its panels, and the list of images. Each module adds its own.
import { get } from './api.js';
import { addPanel, addTool, find, keys, make, onKey, tell } from './dom.js';
import { ImageView } from './image.js';
import { addLive } from './live.js';
import { addMeasuringTools, addStatistics, addStatus } from './measure.js';
import { addOperations } from './operations.js';
import { addPlan } from './plan.js';
import { addRun } from './run.js';
import { addStars } from './stars.js';
import { addStretchPanel } from './stretch.js';

const view = new ImageView();

/** How the picture lies. */
function addViewTools() {
  const zoom = make('output', { title: 'pixels of the screen for one of the image' });
  const gap = () => make('span', { className: 'gap' });
  addTool('Fit', 'all of the image (f)', () => view.fit());
  addTool('1:1', 'pixel by pixel (z)', () => view.zoomTo(1));
  find('tools').append(zoom, gap());
  onKey('f', 'all of the image', () => view.fit());
  onKey('z', 'pixel by pixel, 1:1', () => view.zoomTo(1));
  onKey('+', 'closer', () => view.zoomBy(1.5));
  onKey('=', '', () => view.zoomBy(1.5));
  onKey('-', 'farther', () => view.zoomBy(1 / 1.5));
  onKey('ArrowLeft', 'move left', () => view.moveBy(-0.15, 0));
  onKey('ArrowRight', 'move right', () => view.moveBy(0.15, 0));
  onKey('ArrowUp', 'move up', () => view.moveBy(0, -0.15));
  onKey('ArrowDown', 'move down', () => view.moveBy(0, 0.15));
  const tellZoom = () => (zoom.textContent = `${(100 * view.scale()).toFixed(view.scale() < 0.1 ? 1 : 0)} %`);
  for (const name of ['move', 'exact', 'drawn']) view.addEventListener(name, tellZoom);
}

function addColours() {
  const toggle = () => {
    view.show({ colours: !view.shown.colours });
    colours.setAttribute('aria-pressed', String(!!view.shown.colours));
  };
  const colours = addTool('Colours', 'one plane from blue to yellow (c)', toggle);
  onKey('c', 'colour map of one plane', toggle);
  const developed = addTool('Develop', 'the colours of a mosaic (d)', () => {
    const info = view.info;
    if (info?.mosaic) view.open(info.id, !info.developed).catch(tell);
  });
  onKey('d', 'develop a mosaic', () => developed.click());
  view.addEventListener('open', () => {
    colours.hidden = (view.info?.planes ?? 1) > 1;
    developed.hidden = !view.info?.mosaic;
    developed.setAttribute('aria-pressed', String(!!view.info?.developed));
  });
}

function addHeader() {
  const cards = make('pre', { className: 'cards', tabIndex: 0 });
  const filter = make('input', { className: 'wide', type: 'text', placeholder: 'find', ariaLabel: 'Find in the header' });
  const panel = addPanel('Header', false, filter, cards);
  /** @type {string[]} */
  let lines = [];
  const write = () => {
    const wanted = filter.value.toLowerCase();
    cards.textContent = lines.filter((line) => line.toLowerCase().includes(wanted)).join('\n') || 'nothing';
  };
  const load = async () => {
    const info = view.info;
    if (!info || !panel.open) return;
    const told = /** @type {string[]} */ (await get('image/header', { id: info.id }));
    if (view.info?.id !== info.id) return;
    lines = told.map((card) => card.trimEnd());
    write();
  };
  filter.addEventListener('input', write);
  panel.addEventListener('toggle', () => load().catch(tell));
  view.addEventListener('open', () => load().catch(tell));
}

function addProgress() {
  const bar = make('progress', { max: 1, value: 0, ariaLabel: 'Reading the image' });
  find('stage').append(bar);
  const write = () => {
    bar.value = view.info?.progress ?? 0;
    bar.hidden = bar.value >= 1;
  };
  for (const name of ['open', 'progress', 'exact']) view.addEventListener(name, write);
}

function addAbout() {
  const dialog = /** @type {HTMLDialogElement} */ (find('about'));
  const show = async () => {
    const licences = await Promise.all(['openseadragon', 'uplot'].map(async (name) =>
      make('details', {}, make('summary', {}, name), make('pre', {}, await (await fetch(`licences/${name}.txt`)).text()))));
    const table = make('table', {}, ...[...keys].filter(([, { help }]) => help).map(([key, { help }]) =>
      make('tr', {}, make('th', {}, make('kbd', {}, key === ' ' ? 'Space' : key)), make('td', {}, help))));
    const close = make('button', { type: 'button', autofocus: true, onclick: () => dialog.close() }, 'Close');
    dialog.replaceChildren(make('h3', {}, 'Keys'), table, make('h3', {}, 'Made with'), ...licences, close);
    dialog.showModal();
  };
  addTool('?', 'keys, and what the page is made with (?)', () => show().catch(tell));
  onKey('?', 'this', () => show().catch(tell));
}

/** The list of images. Answers what opens one by its number, also one that is new, and by none just loads the list again. */
function addList() {
  /** @type {{id: number, name: string}[]} */
  let files = [];
  const list = find('list');
  let current = -1;
  const open = (/** @type {number} */ index) => {
    if (index < 0 || index >= files.length) return;
    current = index;
    [...list.children].forEach((button, i) => button.setAttribute('aria-current', String(i === index)));
    list.children[index]?.scrollIntoView({ block: 'nearest' });
    document.title = `${files[index].name} – korimg`;
    view.open(files[index].id).catch(tell);
  };
  const load = async () => {
    files = await get('files');
    list.replaceChildren(...files.map((file, i) =>
      make('button', { type: 'button', title: file.name, onclick: () => open(i) }, file.name)));
    list.hidden = files.length < 2;
  };
  onKey('PageDown', 'next image, as n does', () => open(current + 1));
  onKey('PageUp', 'image before, as p does', () => open(current - 1));
  onKey('n', '', () => open(current + 1));
  onKey('p', '', () => open(current - 1));
  load().then(async () => {
    if (!await addRun(view)) open(0);
    if (files.length === 0 && !(await watched)) tell('there are no images here');
  }).catch(tell);
  return async (/** @type {number | undefined} */ id) => {
    const shown = files[current]?.id;
    await load();
    if (id !== undefined) return open(files.findIndex((file) => file.id === id));
    current = files.findIndex((file) => file.id === shown);
    list.children[current]?.setAttribute('aria-current', 'true');
  };
}

addViewTools();
addStretchPanel(view);
addMeasuringTools(view, addStatistics(view));
addStars(view);
addColours();
addProgress();
addAbout();
addHeader();
addStatus(view);
/** Whether a folder is watched: it may have no images yet. */
const watched = get('live/state', { begun: 0, after: 0, picture: -1 }).then((state) => !!state.folder);
const openFile = addList();
addOperations(view, openFile).catch(tell);
addPlan(() => openFile(undefined)).catch(tell);
addLive(openFile).catch(tell);
