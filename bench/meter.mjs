// Stands between a database's clients and its server, both on sockets, and counts what passes.
import { mkdtempSync, rmSync } from 'node:fs';
import { createConnection, createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

const NAME = '.s.PGSQL.5432';

// `roundTrips`: how often a client spoke after the server had.
export class Meter {
  constructor(server) {
    this.folder = mkdtempSync(join(tmpdir(), 'ossilar-meter-'));
    this.reset();
    this.listener = createServer((client) => this.serve(client, createConnection(join(server, NAME))));
  }

  reset() {
    this.counts = { sent: 0, received: 0, roundTrips: 0 };
  }

  async start() {
    await new Promise((resolve) => this.listener.listen(join(this.folder, NAME), resolve));
    return this;
  }

  serve(client, server) {
    let hasServerSpoken = true;
    client.on('data', (data) => {
      this.counts.sent += data.length;
      if (hasServerSpoken) ++this.counts.roundTrips;
      hasServerSpoken = false;
      server.write(data);
    });
    server.on('data', (data) => {
      this.counts.received += data.length;
      hasServerSpoken = true;
      client.write(data);
    });
    for (const [end, other] of [[client, server], [server, client]]) {
      end.on('error', () => other.destroy());
      end.on('close', () => other.end());
    }
  }

  remove() {
    this.listener.close();
    rmSync(this.folder, { recursive: true, force: true });
  }
}
