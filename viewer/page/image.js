// The picture: deep zoom, what it is shown by, and what is drawn over it.
import { address, get } from './api.js';
import { find, make, tell } from './dom.js';

/** @typedef {import('./api.js').Info} Info */

/**
 * How tiles are drawn; what is undefined is as the server has it by itself.
 * @typedef {Object} Shown
 * @property {string} [levels] "BLACK,MIDTONE,WHITE" of each plane
 * @property {boolean} [linked] of the automatic stretch: the same for all planes
 * @property {string} [steps] "ghs amount=2 then curve points=..."
 * @property {boolean} [colours] one plane in colours
 */

/** Pixels of the picture. @typedef {{left: number, top: number, right: number, bottom: number}} Rect */

/**
 * Events: "open" (another image), "exact" (its statistics are known), "move" (another part of it is seen),
 * "cursor" (detail: {x, y} or null), "drag" and "dragend" (detail: two places) while `catchesDrags` is set.
 */
export class ImageView extends EventTarget {
  /** @type {Info | null} */
  info = null;
  /** @type {Shown} */
  shown = {};
  /** Drags of the pointer are for a tool, and don't move the picture. */
  catchesDrags = false;

  /** @type {any} */
  #viewer;
  /** @type {any} */
  #item = null;
  /** @type {any} */
  #next = null;
  /** What is laid over all tiles. @type {any} */
  #over = null;
  /** @type {((context: CanvasRenderingContext2D) => void)[]} */
  #layers = [];
  #overlay = make('canvas', { className: 'overlay' });
  #opening = 0;
  #isFitted = true;

  constructor() {
    super();
    this.#viewer = OpenSeadragon({
      element: find('stage'),
      drawer: 'canvas',
      showNavigationControl: false,
      loadTilesWithAjax: true, // so that tiles nobody waits for any more are given up
      imageSmoothingEnabled: false,
      preserveImageSizeOnResize: true,
      maxZoomPixelRatio: 32,
      minZoomImageRatio: 0.5,
      visibilityRatio: 0.3,
      animationTime: 0.25,
      zoomPerScroll: 1.3,
      gestureSettingsMouse: { clickToZoom: false, dblClickToZoom: true },
      keyboardNavEnabled: false,
      imageLoaderLimit: 6,
      crossOriginPolicy: false,
    });
    find('stage').append(this.#overlay);
    // All of the picture stays all of it when its room changes.
    for (const name of ['canvas-drag', 'canvas-scroll', 'canvas-pinch', 'canvas-double-click']) {
      this.#viewer.addHandler(name, () => (this.#isFitted = false));
    }
    this.#viewer.addHandler('after-resize', () => this.#isFitted && this.#item && this.fit(true));
    const redraw = () => this.redraw();
    this.#viewer.addHandler('update-viewport', redraw);
    this.#viewer.addHandler('resize', redraw);
    this.#viewer.addHandler('animation-finish', () => this.#snap());
    for (const name of ['animation-finish', 'resize']) {
      this.#viewer.addHandler(name, () => this.dispatchEvent(new Event('move')));
    }
    this.#followPointer();
  }

  /**
   * Shows another image, or the same one developed.
   * @param {number} id
   * @param {boolean} [developed]
   * @param {{keeps?: boolean, closeTo?: {x: number, y: number}, shown?: Shown, begun?: () => void}} [how] `keeps`
   *   where it lies, for one of the same size; of another size, a place that is shown 1:1; how it is shown; what is
   *   done once it takes the place of the one before
   */
  async open(id, developed = false, how = {}) {
    const own = ++this.#opening;
    const before = this.info, isSame = before?.id === id;
    let info = /** @type {Info} */ (await get('image/info', { id, developed }));
    if (own !== this.#opening) return;
    this.info = info;
    if (!isSame) this.shown = { colours: this.shown.colours, ...how.shown };
    how.begun?.();
    this.dispatchEvent(new Event('open'));
    const keeps = how.keeps && this.#item && before?.width === info.width && before.height === info.height;
    this.#load(!keeps, how.closeTo);
    while (info.progress < 1 && !info.failure) {
      await new Promise((done) => setTimeout(done, 250));
      info = await get('image/info', { id, developed });
      if (own !== this.#opening) return;
      this.info = info;
      this.dispatchEvent(new Event('progress'));
    }
    if (info.failure) return tell(info.failure);
    this.#load(false);
    this.dispatchEvent(new Event('exact'));
  }

  /**
   * Shows the image otherwise.
   * @param {Shown} shown
   */
  show(shown) {
    this.shown = { ...this.shown, ...shown };
    this.#load(false);
    this.dispatchEvent(new Event('shown'));
  }

  /**
   * Lays the tiles of what is shown now over those of before, which go once these are there.
   * @param {boolean} fresh
   * @param {{x: number, y: number}} [closeTo]
   */
  #load(fresh, closeTo) {
    const info = this.info;
    if (!info) return;
    const shown = { ...this.shown };
    const last = info.levels - 1;
    const tileSource = {
      width: info.width,
      height: info.height,
      tileSize: info.tile,
      tileOverlap: 1, // without any, tiles are drawn a pixel too large
      minLevel: 0,
      maxLevel: last,
      getTileUrl: (/** @type {number} */ level, /** @type {number} */ x, /** @type {number} */ y) =>
        address('image/tile', {
          id: info.id, developed: info.developed || undefined, level: last - level, x, y, overlap: 1, v: info.version,
          format: level === last ? 'png' : undefined, // pixels that are looked at one by one are what they are
          levels: shown.levels, linked: shown.linked || undefined, steps: shown.steps,
          colours: shown.colours || undefined,
        }),
    };
    if (this.#next) this.#viewer.world.removeItem(this.#next);
    this.#next = null;
    if (fresh) {
      this.#viewer.world.removeAll();
      this.#over = null;
    }
    const before = fresh ? null : this.#item;
    this.#viewer.addTiledImage({
      tileSource,
      success: (/** @type {any} */ event) => {
        const item = event.item;
        this.#raise();
        if (fresh) {
          this.#item = item;
          this.fit(true);
          if (closeTo) this.zoomTo(1, closeTo);
          return;
        }
        this.#next = item;
        const take = () => {
          if (!item.getFullyLoaded() || this.#next !== item) return;
          this.#next = null;
          this.#item = item;
          if (before) this.#viewer.world.removeItem(before);
          this.dispatchEvent(new Event('drawn'));
        };
        item.addHandler('fully-loaded-change', take);
        take();
      },
      error: () => tell('the picture cannot be shown'),
    });
  }

  /**
   * Lays other tiles of the same places over the picture, until another one is opened; null takes them away.
   * @param {((level: number, x: number, y: number) => string) | null} getTileUrl by levels as the server counts
   * @param {number} [opacity]
   */
  cover(getTileUrl, opacity = 1) {
    const info = this.info;
    if (this.#over) this.#viewer.world.removeItem(this.#over);
    this.#over = null;
    if (!getTileUrl || !info) return;
    const last = info.levels - 1;
    this.#viewer.addTiledImage({
      tileSource: {
        width: info.width, height: info.height, tileSize: info.tile, tileOverlap: 1, minLevel: 0, maxLevel: last,
        hasTransparency: () => true,
        getTileUrl: (/** @type {number} */ level, /** @type {number} */ x, /** @type {number} */ y) =>
          getTileUrl(last - level, x, y),
      },
      opacity,
      success: (/** @type {any} */ event) => {
        if (this.info !== info || this.#over) return this.#viewer.world.removeItem(event.item);
        this.#over = event.item;
        this.#raise();
      },
    });
  }

  /** @param {number} opacity */
  setCover(opacity) {
    this.#over?.setOpacity(opacity);
  }

  #raise() {
    const world = this.#viewer.world;
    if (this.#over) world.setItemIndex(this.#over, world.getItemCount() - 1);
  }

  /** All of the picture. @param {boolean} [atOnce] */
  fit(atOnce = false) {
    this.#isFitted = true;
    this.#viewer.viewport.goHome(atOnce);
  }

  /**
   * Sets how many pixels of the screen a pixel of the picture takes.
   * @param {number} scale
   * @param {{x: number, y: number}} [about] a place of the picture that stays where it is
   */
  zoomTo(scale, about) {
    const item = this.#item;
    if (!item) return;
    this.#isFitted = false;
    const place = about && item.imageToViewportCoordinates(new OpenSeadragon.Point(about.x, about.y));
    // In pixels of the device, so that 1:1 is what it says on any screen.
    this.#viewer.viewport.zoomTo(item.imageToViewportZoom(scale / devicePixelRatio), place);
  }

  /** Lays the pixels of the picture on those of the screen at 1:1, which else may lie between these. */
  #snap() {
    const ratio = devicePixelRatio;
    if (!this.#item || Math.abs(this.scale() - 1) > 1e-4) return;
    const corner = this.toStage(0, 0), off = (/** @type {number} */ v) => v - Math.round(v * ratio) / ratio;
    const x = off(corner.x), y = off(corner.y);
    if (Math.hypot(x, y) < 1e-3) return;
    const viewport = this.#viewer.viewport;
    viewport.panBy(viewport.deltaPointsFromPixels(new OpenSeadragon.Point(x, y)), true);
  }

  /** All tiles of what was opened last are there. */
  isDrawn() {
    return !this.#next && !!this.#item?.getFullyLoaded();
  }

  /** @param {number} factor */
  zoomBy(factor) {
    this.#isFitted = false;
    this.#viewer.viewport.zoomBy(factor);
    this.#viewer.viewport.applyConstraints();
  }

  /** By shares of what is seen. @param {number} x @param {number} y */
  moveBy(x, y) {
    this.#isFitted = false;
    const bounds = this.#viewer.viewport.getBounds();
    this.#viewer.viewport.panBy(new OpenSeadragon.Point(x * bounds.width, y * bounds.height));
    this.#viewer.viewport.applyConstraints();
  }

  /** Pixels of the screen for one of the picture. */
  scale() {
    const item = this.#item;
    return item ? item.viewportToImageZoom(this.#viewer.viewport.getZoom(true)) * devicePixelRatio : 1;
  }

  /** What of the picture is seen. @returns {Rect} */
  seen() {
    const info = this.info, item = this.#item;
    if (!info || !item) return { left: 0, top: 0, right: 0, bottom: 0 };
    const bounds = item.viewportToImageRectangle(this.#viewer.viewport.getBounds(false));
    return {
      left: Math.max(Math.floor(bounds.x), 0),
      top: Math.max(Math.floor(bounds.y), 0),
      right: Math.min(Math.ceil(bounds.x + bounds.width), info.width),
      bottom: Math.min(Math.ceil(bounds.y + bounds.height), info.height),
    };
  }

  /** Where a place of the picture is on the stage. @param {number} x @param {number} y */
  toStage(x, y) {
    const item = this.#item;
    return item ? item.imageToViewerElementCoordinates(new OpenSeadragon.Point(x, y)) : { x: 0, y: 0 };
  }

  /**
   * Draws something over the picture, whenever this moves.
   * @param {(context: CanvasRenderingContext2D) => void} draw
   * @param {boolean} [below] what others draw
   */
  addLayer(draw, below = false) {
    if (below) this.#layers.unshift(draw);
    else this.#layers.push(draw);
  }

  redraw() {
    const { clientWidth: width, clientHeight: height } = find('stage');
    const canvas = this.#overlay, ratio = devicePixelRatio;
    if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
      canvas.width = Math.round(width * ratio);
      canvas.height = Math.round(height * ratio);
    }
    const context = /** @type {CanvasRenderingContext2D} */ (canvas.getContext('2d'));
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    context.clearRect(0, 0, width, height);
    if (this.#item) for (const draw of this.#layers) draw(context);
  }

  #followPointer() {
    const stage = find('stage');
    /** @type {{x: number, y: number} | null} */
    let from = null;
    const place = (/** @type {PointerEvent} */ event) => {
      const bounds = stage.getBoundingClientRect();
      const at = new OpenSeadragon.Point(event.clientX - bounds.left, event.clientY - bounds.top);
      const { x, y } = this.#item.viewerElementToImageCoordinates(at);
      return { x, y };
    };
    /** @type {PointerEvent | null} */
    let last = null;
    const point = () => {
      if (!this.info || !this.#item || !last) return;
      const at = place(last);
      const inside = at.x >= 0 && at.y >= 0 && at.x < this.info.width && at.y < this.info.height;
      const detail = inside ? { x: Math.floor(at.x), y: Math.floor(at.y) } : null;
      this.dispatchEvent(new CustomEvent('cursor', { detail }));
      return at;
    };
    for (const name of ['move', 'exact']) this.addEventListener(name, point);  // what is under it has changed
    stage.addEventListener('pointermove', (event) => {
      last = event;
      const at = point();
      if (from && at) this.dispatchEvent(new CustomEvent('drag', { detail: { from, to: at } }));
    }, true);
    stage.addEventListener('pointerleave', () => {
      last = null;
      this.dispatchEvent(new CustomEvent('cursor', { detail: null }));
    });
    stage.addEventListener('pointerdown', (event) => {
      if (!this.catchesDrags || !this.#item || event.button !== 0) return;
      from = place(event);
      stage.setPointerCapture(event.pointerId);
      event.stopPropagation();
    }, true);
    stage.addEventListener('pointerup', (event) => {
      if (!from) return;
      const detail = { from, to: place(event) };
      from = null;
      event.stopPropagation();
      this.dispatchEvent(new CustomEvent('dragend', { detail }));
    }, true);
  }

  /** @param {boolean} on */
  catchDrags(on) {
    this.catchesDrags = on;
    this.#viewer.setMouseNavEnabled(!on);
    find('stage').classList.toggle('crosshair', on);
  }
}
