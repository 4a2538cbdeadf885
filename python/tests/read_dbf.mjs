// node read_dbf.mjs EXTENSION TABLE...: a line of JSON for each table, by @duckdb/node-api of the
// folder that MIRA_NODE names.
import { createRequire } from 'node:module';
import { pathToFileURL } from 'node:url';

const { resolve } = createRequire(process.env.MIRA_NODE + '/');
const { DuckDBInstance } = await import(pathToFileURL(resolve('@duckdb/node-api')));
const [extension, ...tables] = process.argv.slice(2);
const instance = await DuckDBInstance.create(':memory:', { allow_unsigned_extensions: 'true' });
const connection = await instance.connect();
await connection.run(`LOAD '${extension}'`);
for (const table of tables) {
  let line = { table, rows: null };
  try {
    const result = await connection.runAndReadAll('FROM read_dbf($1)', [table]);
    line.cells = result.getRowsJson();
    line.names = result.columnNames();
    line.rows = line.cells.length;
  } catch (error) {
    line.error = String(error);
  }
  console.log(JSON.stringify(line));
}
