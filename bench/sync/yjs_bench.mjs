// The Yjs peer of the end-to-end sync benchmark: two documents, entities as
// map entries (each entity a nested map of properties), one-operation
// property updates split over both documents, exchanged every `exchange`
// operations by state vector. Prints one JSON line with the figures.
//
//   node yjs_bench.mjs [operations=100000] [exchange=100] [entities=1000]
import * as Y from 'yjs';

const operations = Number(process.argv[2] ?? 100000);
const exchange = Number(process.argv[3] ?? 100);
const entityCount = Number(process.argv[4] ?? 1000);
const properties = ['title', 'done', 'rank', 'notes'];

let seed = 12345;
const random = () => {
  seed = (seed * 1103515245 + 12345) % 2147483648;
  return seed / 2147483648;
};

const server = new Y.Doc();
const client = new Y.Doc();
server.transact(() => {
  const entities = server.getMap('entities');
  for (let i = 0; i < entityCount; ++i) {
    const entity = new Y.Map();
    entities.set('E' + i, entity);
    entity.set('title', 't' + i);
  }
});
Y.applyUpdate(client, Y.encodeStateAsUpdate(server));

const sync = (from, to) => Y.applyUpdate(to, Y.encodeStateAsUpdate(from, Y.encodeStateVector(to)));

const start = process.hrtime.bigint();
for (let done = 0; done < operations; done += exchange) {
  for (let i = 0; i < exchange; ++i) {
    const doc = i < exchange / 2 ? server : client;
    const entity = doc.getMap('entities').get('E' + Math.floor(random() * entityCount));
    const property = properties[Math.floor(random() * properties.length)];
    doc.transact(() => entity.set(property, Math.floor(random() * 1000)));
  }
  sync(server, client);
  sync(client, server);
}
const seconds = Number(process.hrtime.bigint() - start) / 1e9;

// Map entries enumerate in the order each document learnt them, so compare
// with the keys sorted.
const canonical = (value) =>
  value && typeof value === 'object'
    ? Object.keys(value).sort().map((key) => [key, canonical(value[key])])
    : value;
const equal = JSON.stringify(canonical(server.getMap('entities').toJSON())) ===
  JSON.stringify(canonical(client.getMap('entities').toJSON()));
const encoded = Y.encodeStateAsUpdate(server).length;
console.log(JSON.stringify({
  operations, exchange, entities: entityCount, seconds,
  operationsPerSecond: operations / seconds,
  encodedDocumentBytes: encoded,
  encodedBytesPerOperation: encoded / operations,
  equal,
}));
if (!equal) process.exit(1);
