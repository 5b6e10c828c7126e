// Questions to the server. Addresses are relative, so that they carry the token of the page's own.

/**
 * @typedef {Object} PlaneLevels
 * @property {number} black raw value that is black
 * @property {number} white raw value that is white
 * @property {number} midtone share of the way between them that becomes medium grey
 */

/**
 * @typedef {Object} Info
 * @property {number} id
 * @property {number} width
 * @property {number} height
 * @property {number} planes
 * @property {number} levels of halves, the image itself among them
 * @property {number} tile pixels of a tile's side
 * @property {string} version of what tiles show
 * @property {number} progress 1: nothing changes any more
 * @property {string} failure
 * @property {PlaneLevels[]} auto
 * @property {PlaneLevels[]} linked
 * @property {string} format
 * @property {string} type
 * @property {boolean} overturned
 * @property {string} mosaic
 * @property {boolean} developed
 * @property {boolean} sky
 * @property {number | null} scale seconds of arc for a pixel
 * @property {Record<string, string>} [keywords]
 */

/**
 * @param {string} name
 * @param {Record<string, string | number | boolean | undefined>} [parameters] what is undefined is left out
 * @returns {string}
 */
export function address(name, parameters = {}) {
  const query = new URLSearchParams();
  for (const [key, value] of Object.entries(parameters)) {
    if (value !== undefined && value !== '') query.set(key, value === true ? '1' : value === false ? '0' : String(value));
  }
  const text = query.toString();
  return text ? `${name}?${text}` : name;
}

/**
 * @param {Response} response
 * @returns {Promise<any>}
 */
async function answer(response) {
  const json = response.headers.get('Content-Type') === 'application/json' ? await response.json() : null;
  if (!response.ok) throw new Error(json?.error ?? `the server answers ${response.status}`);
  return json;
}

/**
 * @param {string} name
 * @param {Record<string, string | number | boolean | undefined>} [parameters]
 * @param {AbortSignal} [signal]
 */
export async function get(name, parameters, signal) {
  return answer(await fetch(address(name, parameters), { signal }));
}

/**
 * @param {string} name
 * @param {unknown} body
 * @param {AbortSignal} [signal]
 */
export async function post(name, body, signal) {
  const headers = { 'Content-Type': 'application/json' };
  return answer(await fetch(name, { method: 'POST', headers, body: JSON.stringify(body), signal }));
}

/** Of questions that come fast only the last one counts: each takes the place of the one before. */
export class Latest {
  /** @type {AbortController | null} */
  #running = null;

  /**
   * @param {string} name
   * @param {Record<string, string | number | boolean | undefined>} parameters
   * @returns {Promise<any>} null where a later question came
   */
  async get(name, parameters) {
    this.#running?.abort();
    const own = (this.#running = new AbortController());
    try {
      return await get(name, parameters, own.signal);
    } catch (error) {
      if (own.signal.aborted) return null;
      throw error;
    }
  }
}
