// Elements, panels, messages.

/**
 * Makes an element. Properties are set as such where the element has them, else as attributes.
 * @template {keyof HTMLElementTagNameMap} K
 * @param {K} tag
 * @param {Record<string, any>} [properties]
 * @param {...(Node | string)} children
 * @returns {HTMLElementTagNameMap[K]}
 */
export function make(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [key, value] of Object.entries(properties)) {
    if (key in element) /** @type {any} */ (element)[key] = value;
    else element.setAttribute(key, value);
  }
  element.append(...children);
  return element;
}

/**
 * @param {string} id
 * @returns {HTMLElement}
 */
export function find(id) {
  const element = document.getElementById(id);
  if (!element) throw new Error(`the page has no ${id}`);
  return element;
}

/**
 * Adds a panel on the right.
 * @param {string} title
 * @param {boolean} open
 * @param {...(Node | string)} children
 * @returns {HTMLDetailsElement}
 */
export function addPanel(title, open, ...children) {
  const panel = make('details', { open }, make('summary', {}, title), make('div', {}, ...children));
  find('panels').append(panel);
  return panel;
}

/**
 * Adds a button to the tool bar.
 * @param {string} text
 * @param {string} help
 * @param {() => void} action
 */
export function addTool(text, help, action) {
  const button = make('button', { type: 'button', title: help, onclick: action }, text);
  find('tools').append(button);
  return button;
}

let hiding = 0;

/**
 * Tells what went wrong.
 * @param {unknown} error
 */
export function tell(error) {
  const place = find('message');
  place.textContent = error instanceof Error ? error.message : String(error);
  place.hidden = false;
  clearTimeout(hiding);
  hiding = window.setTimeout(() => (place.hidden = true), 6000);
}

/** @type {Map<string, {help: string, action: () => void}>} */
export const keys = new Map();

/**
 * Gives a key an action, while nothing is being written. What it answers gives the key back to what it did before.
 * @param {string} key as KeyboardEvent.key has it
 * @param {string} help empty: the list of keys leaves it out
 * @param {() => void} action
 */
export function onKey(key, help, action) {
  const before = keys.get(key);
  keys.set(key, { help, action });
  return () => void (before ? keys.set(key, before) : keys.delete(key));
}

document.addEventListener('keydown', (event) => {
  const target = /** @type {HTMLElement} */ (event.target);
  if (document.querySelector('dialog[open]')) return;
  if (event.ctrlKey || event.metaKey || event.altKey || target.matches('input:not([type=range], [type=checkbox]), select, textarea')) return;
  if (target.matches('input[type=range]') && event.key.startsWith('Arrow')) return;
  const found = keys.get(event.key);
  if (!found) return;
  event.preventDefault();
  found.action();
});

/**
 * A number as people read it.
 * @param {number | null} value
 */
export function pretty(value) {
  if (value === null || !Number.isFinite(value)) return '–';
  const size = Math.abs(value);
  if (size !== 0 && (size < 1e-3 || size >= 1e7)) return value.toExponential(3);
  return String(Number(value.toPrecision(6)));
}
