// Frames of a run over the picture, one after the other, at one stretch.
import { address, get } from './api.js';
import { addTool, find, make, onKey, tell } from './dom.js';

const rate = 10;  // frames a second
const room = 384 << 20;  // bytes of decoded previews

export class Blink {
  /** Previews that were drawn since the page was opened. */
  shown = 0;
  isPlaying = false;

  /** @type {import('./image.js').ImageView} */
  #view;
  /** @type {import('./run.js').RunView} */
  #run;
  /** @type {Map<string, ImageBitmap | Promise<ImageBitmap | null>>} decoded previews, the last one used last */
  #cache = new Map();
  /** @type {ImageBitmap | null} */
  #drawn = null;
  #stack = 0;
  #other = -1;
  #isOn = false;
  /** @type {(() => void)[]} */
  #lent = [];
  /** @type {{x: number, y: number} | null} */
  #cursor = null;
  /** The frame whose own tiles are open, at 1:1, and their number. */
  #sharp = -1;
  #sharpImage = -1;
  #wantsSharp = false;
  #resting = 0;
  #label = make('output', { className: 'frame', ariaLive: 'polite' });
  /** @type {HTMLButtonElement} */ #stackTool;
  /** @type {HTMLButtonElement} */ #playTool;

  /** @param {import('./image.js').ImageView} view @param {import('./run.js').RunView} run */
  constructor(view, run) {
    this.#view = view;
    this.#run = run;
    this.#stackTool = addTool('Stack', 'the stack, or the frame again (v)', () => this.toggle());
    this.#playTool = addTool('Blink', 'play the frames (Space)', () => this.play());
    find('stage').append(this.#label);
    view.addLayer((context) => this.#draw(context), true);
    view.addEventListener('cursor', (event) => {
      this.#cursor = /** @type {CustomEvent} */ (event).detail ?? this.#cursor;
    });
    view.addEventListener('open', () => {
      const id = view.info?.id;
      const isOurs = id === this.#sharpImage || run.info?.stacks.some((stack) => stack.image === id);
      if (this.#isOn && !isOurs) this.#leave();
    });
    for (const name of ['drawn', 'exact']) view.addEventListener(name, () => view.redraw());
    run.addEventListener('load', () => {
      this.#cache.clear();
      this.#sharp = this.#other = -1;
    });
    run.addEventListener('choose', () => run.current >= 0 && this.#show());
    run.addEventListener('flags', () => this.#write());
    onKey('v', 'the stack, or the frame again', () => this.toggle());
    onKey(' ', 'play the frames of the run', () => this.play());
    onKey('b', 'blink two frames: this one and the one before it', () => this.two());
    onKey('.', 'next frame of the run', () => this.step(1));
    onKey(',', 'frame before it', () => this.step(-1));
  }

  /** Frames that can be laid over each other: of the same stack as the current one, in time. */
  frames() {
    const info = this.#run.info;
    if (!info) return [];
    const stack = info.frames[this.#run.current]?.stack ?? info.stacks[this.#stack]?.name;
    const all = info.frames.map((_, i) => i).filter((i) => info.frames[i].registered && info.frames[i].stack === stack);
    const chosen = all.filter((i) => this.#run.selected.has(i));
    return chosen.length > 1 ? chosen : all;
  }

  /** Shows the stack of the current frame. @param {boolean} [fresh] anew, all of it */
  showStack(fresh = false) {
    this.#leave();
    const info = this.#run.info;
    const name = info?.frames[this.#run.current]?.stack;
    this.#stack = Math.max(info?.stacks.findIndex((stack) => stack.name === name) ?? 0, 0);
    const image = info?.stacks[this.#stack]?.image;
    if (image !== null && image !== undefined && (fresh || this.#view.info?.id !== image)) {
      this.#view.open(image, false, { keeps: !fresh }).catch(tell);
    }
    this.#view.redraw();
  }

  /** No frame is shown any more. */
  #leave() {
    this.#isOn = this.#wantsSharp = false;
    this.#sharp = -1;
    this.#giveBack();
    this.stop();
  }

  toggle() {
    if (this.#isOn) this.showStack();
    else if (this.#run.current >= 0) this.#show();
    else this.step(1);
  }

  /** @param {number} by */
  step(by) {
    const frames = this.frames();
    if (frames.length === 0) return tell('no frame of this run is registered');
    const at = frames.indexOf(this.#run.current);
    const next = at < 0 ? (by > 0 ? 0 : frames.length - 1) : (at + by + frames.length) % frames.length;
    const { selected } = this.#run;
    this.#other = this.#run.current;
    this.#run.choose(frames[next], selected.size > 1 ? selected : [frames[next]]);
  }

  /** Plays, or stops. */
  play() {
    if (this.isPlaying) return this.stop();
    this.#playWith((frames) => {
      const at = frames.indexOf(this.#run.current);
      return frames[(at + 1) % frames.length];
    });
  }

  /** Plays two frames: those that are selected, or the current one and the one that was before. */
  two() {
    if (this.isPlaying) return this.stop();
    const frames = this.frames(), { current } = this.#run;
    const known = frames.length === 2 ? frames : [current, this.#other].filter((i) => frames.includes(i));
    const pair = known.length === 2 ? known : [current, frames[(frames.indexOf(current) + 1) % frames.length]];
    if (pair.some((i) => i === undefined || i < 0)) return tell('choose a frame to blink with the next one');
    this.#playWith(() => (this.#run.current === pair[0] ? pair[1] : pair[0]), 3);
  }

  /**
   * Shows one frame after the other, as fast as wanted, and no faster than they come.
   * @param {(frames: number[]) => number} next
   * @param {number} [perSecond]
   */
  async #playWith(next, perSecond = rate) {
    this.isPlaying = true;
    this.#write();
    let due = performance.now();
    while (this.isPlaying) {
      const frames = this.frames();
      if (frames.length === 0) return this.stop();
      const frame = next(frames), { selected } = this.#run;
      await this.#get(frame);
      due = Math.max(due + 1000 / perSecond, performance.now());
      await new Promise((done) => setTimeout(done, due - performance.now()));
      if (!this.isPlaying) return;
      this.#run.choose(frame, selected.size > 1 ? selected : [frame]);
    }
  }

  stop() {
    this.isPlaying = false;
    this.#write();
  }

  /** Pixels that the view has use for. */
  #side() {
    const stage = find('stage');
    return Math.min(Math.max(Math.ceil(Math.max(stage.clientWidth, stage.clientHeight) * devicePixelRatio), 64), 1600);
  }

  /** @param {number} frame @returns {Promise<ImageBitmap | null>} */
  async #get(frame) {
    const run = this.#run, info = run.info;
    if (!info?.frames[frame]?.registered) return null;
    const side = Math.ceil(this.#side() / 200) * 200, key = `${info.version} ${frame} ${Math.min(side, 1600)}`;
    const found = this.#cache.get(key);
    if (found) {
      this.#cache.delete(key);
      this.#cache.set(key, found);
      return found;
    }
    const load = async () => {
      const response = await fetch(address('run/preview', { run: run.id, frame, side: Math.min(side, 1600), v: info.version }));
      if (!response.ok) throw new Error((await response.json()).error);
      return createImageBitmap(await response.blob());
    };
    const loading = load().catch((error) => {
      this.#cache.delete(key);
      tell(error);
      return null;
    });
    this.#cache.set(key, loading);
    const bitmap = await loading;
    if (bitmap && this.#cache.get(key) === loading) this.#cache.set(key, bitmap);
    const most = bitmap ? Math.max(Math.floor(room / (4 * bitmap.width * bitmap.height)), 3) : 3;
    for (const [old] of this.#cache) {
      if (this.#cache.size <= most) break;
      this.#cache.delete(old);
    }
    return bitmap;
  }

  /** Asks for the frames that come next, two at a time: the server makes one, and sends the other. */
  async #ahead() {
    const frames = this.frames(), at = frames.indexOf(this.#run.current);
    const coming = frames.slice(at + 1).concat(frames.slice(0, Math.max(at, 0))).slice(0, 60);
    const own = this.#run.current;
    const fetchNext = async () => {
      for (let next = coming.shift(); next !== undefined; next = coming.shift()) {
        if (!this.#isOn || (!this.isPlaying && this.#run.current !== own)) return;
        await this.#get(next);
      }
    };
    await Promise.all([fetchNext(), fetchNext()]);
  }

  async #show() {
    const run = this.#run, frame = run.current, info = run.info;
    if (!info) return;
    if (!this.#isOn) {
      this.#isOn = true;
      this.#borrow();
    }
    if (!info.frames[frame].registered) {
      this.#drawn = null;
      this.stop();
      this.#view.redraw();
      return;
    }
    this.#write();
    const bitmap = await this.#get(frame);
    if (run.current !== frame || !this.#isOn || !bitmap) return;
    this.#drawn = bitmap;
    ++this.shown;
    find('stage').dataset.shown = String(this.shown);
    this.#view.redraw();
    if (!this.isPlaying || this.shown % 30 === 1) this.#ahead();
    clearTimeout(this.#resting);
    if (this.#wantsSharp && !this.isPlaying) this.#resting = window.setTimeout(() => this.#sharpen(), 250);
  }

  /** The frame's own pixels, by tiles. */
  async #sharpen(place = /** @type {{x: number, y: number} | undefined} */ (undefined)) {
    const run = this.#run, frame = run.current;
    if (!this.#isOn || this.#sharp === frame) return;
    try {
      const { image, levels } = await get('run/frame', { run: run.id, frame });
      if (run.current !== frame || !this.#isOn) return;
      await this.#view.open(image, false, { keeps: true, closeTo: place, shown: { levels: levels.join(',') }, begun: () => {
        this.#sharp = frame;
        this.#sharpImage = image;
      } });
    } catch (error) {
      tell(error);
    }
  }

  /** Goes to 1:1 about the pointer, or back to all of the picture. */
  zoom() {
    this.#wantsSharp = !this.#wantsSharp;
    if (!this.#wantsSharp) return this.#view.fit();
    const cursor = this.#cursor ?? undefined, grid = this.#run.info, seen = this.#view.info;
    if (!grid || !seen || seen.width === grid.width) {
      this.#view.zoomTo(1, cursor);
      return void this.#sharpen();
    }
    // A drizzled stack is finer than its frames.
    const { x, y } = cursor ?? { x: seen.width / 2, y: seen.height / 2 }, share = grid.width / seen.width;
    this.#sharpen({ x: x * share, y: y * share });
  }

  /** Keys that mean something else while frames are shown. */
  #borrow() {
    this.#lent = [
      onKey('ArrowRight', 'next frame of the run; of an image: move right', () => this.step(1)),
      onKey('ArrowLeft', 'frame before it; of an image: move left', () => this.step(-1)),
      onKey('z', 'pixel by pixel, 1:1', () => this.zoom()),
      onKey('Escape', 'back to the stack', () => this.showStack()),
    ];
  }

  #giveBack() {
    for (const back of this.#lent.reverse()) back();
    this.#lent = [];
  }

  #write() {
    const run = this.#run, frame = run.info?.frames[run.current];
    this.#label.hidden = !this.#isOn || !frame;
    if (frame) {
      const flagged = run.info?.flags.out[run.current];
      this.#label.textContent = `${frame.name}${flagged ? '  ✕ flagged' : frame.stacked ? '' : '  left out'}`;
      // What lies nowhere is shown beside the stack, as small as it was kept.
      if (!frame.registered) {
        const src = address('run/thumbnail', { run: run.id, frame: run.current, v: run.info?.version });
        this.#label.append(make('div', {}, frame.status), ...(frame.measured ? [make('img', { src, alt: frame.name })] : []));
      }
      this.#label.classList.toggle('flagged', !!flagged);
    }
    this.#stackTool.setAttribute('aria-pressed', String(!this.#isOn));
    this.#playTool.setAttribute('aria-pressed', String(this.isPlaying));
  }

  /** @param {CanvasRenderingContext2D} context */
  #draw(context) {
    const info = this.#view.info, bitmap = this.#drawn;
    if (!this.#isOn || !bitmap || !info) return;
    if (this.#sharp === this.#run.current && !this.isPlaying && this.#view.isDrawn()) return;  // its tiles are there
    // Of a width that the shrinking does not divide, a preview ends a little later; a drizzled stack is finer.
    const grid = /** @type {import('./run.js').RunInfo} */ (this.#run.info), shrink = Math.round(grid.width / bitmap.width);
    const from = this.#view.toStage(0, 0), to = this.#view.toStage(
      (bitmap.width * shrink * info.width) / grid.width, (bitmap.height * shrink * info.height) / grid.height);
    context.imageSmoothingEnabled = true;
    context.imageSmoothingQuality = 'medium';
    context.drawImage(bitmap, from.x, from.y, to.x - from.x, to.y - from.y);
  }
}
