// SPDX-License-Identifier: MIT
// usage: node_upload.mjs URL FILE...
// Sends the files and a field as a form with fetch() and FormData, and prints the response.
import { readFileSync } from "node:fs";
import { basename } from "node:path";

const [url, ...paths] = process.argv.slice(2);
const form = new FormData();
form.append("note", "caf\u00e9 & tea");
for (const path of paths)
  form.append("file", new Blob([readFileSync(path)]), basename(path));
console.log(await (await fetch(url, { method: "POST", body: form })).text());
