export { ZorvError } from './lib/library.js';
export { Clip } from './lib/clip.js';
export { Face } from './lib/face.js';
export { Frame } from './lib/frame.js';
