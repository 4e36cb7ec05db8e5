// The peer of the TLS comparison: node-server.js behind TLS, with a file that holds certificate and key.
const constants = require('constants');
const fs = require('fs');
const https = require('https');

const pem = fs.readFileSync(process.argv[3]);
const options = { cert: pem, key: pem, minVersion: 'TLSv1.2', secureOptions: constants.SSL_OP_NO_TICKET };
https.createServer(options, (request, response) => {
  const headers = Object.entries(request.headers).map(([name, value]) => `${name}: ${value}\n`).join('');
  process.stdout.write(`${request.method} ${request.url}\n${headers}\n`);
  request.resume();
  response.writeHead(200, { Connection: 'close' });
  response.end();
}).listen(Number(process.argv[2]), '127.0.0.1');
