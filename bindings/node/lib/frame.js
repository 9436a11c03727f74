import { KINDS } from './library.js';

/** How the planes of a W x H picture lie behind one another, without gaps. */
export function planesOf(pixels, width, height) {
  const columns = (width + 1) >> 1;
  const rows = (height + 1) >> 1;
  switch (pixels) {
    case 'rgba':
      return [{ stride: width * 4, rows: height }];
    case 'rgb':
      return [{ stride: width * 3, rows: height }];
    case 'nv12':
      return [{ stride: width, rows: height }, { stride: columns * 2, rows }];
    default:
      return [{ stride: width, rows: height }, { stride: columns, rows }, { stride: columns, rows }];
  }
}

export function bytesOf(planes) {
  return planes.reduce((sum, plane) => sum + plane.stride * plane.rows, 0);
}

/** A finished picture, and the sound that belongs to it. */
export class Frame {
  #giveBack;

  constructor(fields, giveBack) {
    Object.assign(this, fields);
    this.#giveBack = giveBack;
  }

  /** The planes one by one: [rgb(a)], [y, uv] or [y, u, v]. */
  get planes() {
    let at = 0;
    return planesOf(this.pixels, this.width, this.height).map(({ stride, rows }) => {
      const plane = this.data.subarray(at, at + stride * rows);
      at += stride * rows;
      return plane;
    });
  }

  /** Lets the next frames use this one's memory; it must not be looked at afterwards. */
  release() {
    if (this.data.length > 0) this.#giveBack?.(this.data);
    this.data = this.data.subarray(0, 0);
    this.#giveBack = undefined;
  }
}

export const kindName = (kind) => KINDS[kind] ?? 'idle';
