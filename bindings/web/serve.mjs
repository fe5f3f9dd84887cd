// A static file server for trying the demo: serves the repository (the demo,
// dist/ and the bundled model) on the loopback address only.
//
//   node bindings/web/serve.mjs [PORT]     # then open http://127.0.0.1:PORT/
import { createReadStream, statSync } from 'node:fs';
import { createServer } from 'node:http';
import { extname, join, normalize, sep } from 'node:path';
import { fileURLToPath } from 'node:url';

const kTypes = {
  '.html': 'text/html; charset=utf-8', '.js': 'text/javascript', '.mjs': 'text/javascript',
  '.css': 'text/css', '.wasm': 'application/wasm', '.json': 'application/json',
  '.png': 'image/png', '.wav': 'audio/wav', '.kmodel': 'application/octet-stream',
};
const kRoot = fileURLToPath(new URL('../..', import.meta.url));

// Resolves with {server, url} once listening; port 0 picks a free one.
export function startServer(port = 0, root = kRoot) {
  const server = createServer((request, response) => {
    let path = decodeURIComponent(new URL(request.url, 'http://localhost').pathname);
    if (path === '/') {
      response.writeHead(302, { Location: '/bindings/web/demo/' });
      response.end();
      return;
    }
    if (path.endsWith('/')) path += 'index.html';
    const file = normalize(join(root, path));
    let size = -1;  // -1: not a file under the root
    if (file.startsWith(root.endsWith(sep) ? root : root + sep)) {
      try {
        const stat = statSync(file);
        if (stat.isFile()) size = stat.size;
      } catch {
        // missing: a 404 below
      }
    }
    if (size < 0 || request.method !== 'GET') {
      response.writeHead(size < 0 ? 404 : 405, { 'Content-Type': 'text/plain' });
      response.end(size < 0 ? `not found: ${path}\n` : 'only GET\n');
      return;
    }
    response.writeHead(200, {
      'Content-Type': kTypes[extname(file)] ?? 'application/octet-stream',
      'Content-Length': size,
      'Cache-Control': 'no-store',
    });
    createReadStream(file).pipe(response);
  });
  return new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(port, '127.0.0.1', () => {
      resolve({ server, url: `http://127.0.0.1:${server.address().port}` });
    });
  });
}

if (process.argv[1] && fileURLToPath(import.meta.url) === process.argv[1]) {
  const { url } = await startServer(Number(process.argv[2] ?? 8000));
  console.log(`Kestrel demo: ${url}/bindings/web/demo/  (Ctrl-C stops)`);
}
