// Start of kestrel.mjs. The emscripten glue that follows was written for
// CommonJS: in Node it calls require() and reads __dirname, which an ES
// module does not have, so they are made here. Browsers skip all of it.
const kestrelInNode = typeof process === 'object' && typeof process.versions === 'object' &&
    typeof process.versions.node === 'string';
const require = kestrelInNode ?
    (await import('node:module')).createRequire(import.meta.url) : undefined;
const __dirname = kestrelInNode ?
    require('node:path').dirname(require('node:url').fileURLToPath(import.meta.url)) : undefined;
