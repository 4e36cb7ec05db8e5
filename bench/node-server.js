// The peer of the HTTP comparison: prints method, path, headers and body of every request and answers 200.
const http = require('http');

http.createServer((request, response) => {
  const body = [];
  request.on('data', (chunk) => body.push(chunk));
  request.on('end', () => {
    const headers = Object.entries(request.headers).map(([name, value]) => `${name}: ${value}\n`).join('');
    process.stdout.write(`${request.method} ${request.url}\n${headers}\n${Buffer.concat(body)}\n`);
    response.writeHead(200, { Connection: 'close' });
    response.end();
  });
}).listen(Number(process.argv[2]));
