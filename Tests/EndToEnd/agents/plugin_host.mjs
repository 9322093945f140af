// SPDX-License-Identifier: Apache-2.0
// What OpenCode is to a plugin: loads it, gives it a shell, and calls it with events, one a line on standard input.
// A line {"event": …} is answered when the plugin is done with it, {"together": [event, …]} hands over several at
// once, and {"status": …} calls a plugin of the earlier interface.
import { spawn } from "node:child_process";
import { createRequire } from "node:module";
import { createInterface } from "node:readline";
import { pathToFileURL } from "node:url";

// Plugins of the earlier interface expect the loader of CommonJS beside the one of modules.
globalThis.require = createRequire(import.meta.url);

// The text between values is words parted by blanks; a value is one word whatever it holds, a list several.
const wordsOf = (pieces, values) => {
  const words = [];
  let open = false;
  pieces.forEach((piece, i) => {
    piece.split(/(\s+)/).forEach((part) => {
      if (part === "") return;
      if (/^\s+$/.test(part)) open = false;
      else if (open) words[words.length - 1] += part;
      else (words.push(part), (open = true));
    });
    if (i >= values.length) return;
    const list = Array.isArray(values[i]) ? values[i].map(String) : [String(values[i])];
    list.forEach((value, k) => {
      if (open && k === 0) words[words.length - 1] += value;
      else words.push(value);
      open = true;
    });
  });
  return words;
};

const $ = (pieces, ...values) => {
  let throws = true;
  let isQuiet = false;
  const run = () =>
    new Promise((resolve, reject) => {
      const [program, ...words] = wordsOf(pieces, values);
      const output = isQuiet ? "ignore" : "inherit";
      const child = spawn(program, words, { stdio: ["ignore", output, output] });
      child.on("error", (error) => (throws ? reject(error) : resolve({ exitCode: 127 })));
      child.on("close", (exitCode) => (throws && exitCode !== 0 ? reject(new Error("exit")) : resolve({ exitCode })));
    });
  const promise = {
    quiet: () => ((isQuiet = true), promise),
    nothrow: () => ((throws = false), promise),
    then: (done, failed) => run().then(done, failed),
  };
  return promise;
};

const module = await import(pathToFileURL(process.argv[2]));
const hooks = {};
if (process.argv[3] === "current") {
  for (const plugin of Object.values(module)) {
    if (typeof plugin !== "function") throw new Error("every export of a plugin is called");
    Object.assign(hooks, await plugin({ $, directory: process.cwd() }));
  }
}
console.log(JSON.stringify({ exports: Object.keys(module), pid: process.pid }));
for await (const line of createInterface({ input: process.stdin })) {
  const request = JSON.parse(line);
  if (request.event) await hooks.event({ event: request.event });
  if (request.together) await Promise.all(request.together.map((event) => hooks.event({ event })));
  if (request.status) module.default.onSessionStatus(request.status);
  console.log("{}");
}
