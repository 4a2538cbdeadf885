// node read_dbf.mjs EXTENSION FOLDER TABLE...: the tables, by number, as CSV into the folder, by the
// @duckdb/node-api of the folder that MIRA_NODE names; the version of DuckDB on standard output.
import { createRequire } from 'node:module';
import { pathToFileURL } from 'node:url';

const { resolve } = createRequire(process.env.MIRA_NODE + '/');
const { DuckDBInstance } = await import(pathToFileURL(resolve('@duckdb/node-api')));
const [extension, folder, ...tables] = process.argv.slice(2);
const instance = await DuckDBInstance.create(':memory:', { allow_unsigned_extensions: 'true' });
const connection = await instance.connect();
await connection.run(`LOAD '${extension}'`);
for (const [number, table] of tables.entries()) {
  const from = `read_dbf('${table.replaceAll("'", "''")}')`;
  try {
    await connection.run(`COPY (SELECT COLUMNS(*)::VARCHAR FROM ${from}) TO '${folder}/${number}.csv'`);
  } catch (error) {
    console.error(String(error));
  }
}
console.log((await connection.runAndReadAll('SELECT version()')).getRows()[0][0]);
