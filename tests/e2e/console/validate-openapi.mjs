// Checks an OpenAPI document against the OpenAPI 3 JSON schema with a real
// validator, resolves every internal "$ref" and checks that operation ids are
// unique (the schema cannot say that). Prints what is wrong.
//
//   node validate-openapi.mjs <document.json>
//
// Exit code 0 when valid, 1 when not, 2 when it cannot run.

import { readFileSync } from "node:fs";

let Validator;
try {
  ({ Validator } = await import("@seriousme/openapi-schema-validator"));
} catch (error) {
  console.error(
    "validate-openapi: @seriousme/openapi-schema-validator is not installed here " +
      "(scripts/install-deps.sh runs npm ci in tests/e2e/console): " + error.message,
  );
  process.exit(2);
}

if (process.argv.length !== 3) {
  console.error("usage: node validate-openapi.mjs <document.json>");
  process.exit(2);
}

let document;
try {
  document = JSON.parse(readFileSync(process.argv[2], "utf8"));
} catch (error) {
  console.error(`validate-openapi: ${process.argv[2]}: ${error.message}`);
  process.exit(1);
}

const validator = new Validator();
const result = await validator.validate(document);
if (!result.valid) {
  console.error(`validate-openapi: not a valid OpenAPI ${validator.version ?? ""} document:`);
  console.error(JSON.stringify(result.errors, null, 2));
  process.exit(1);
}

const problems = [];
try {
  validator.resolveRefs();
} catch (error) {
  problems.push(`a $ref does not resolve: ${error.message}`);
}

// Every "$ref" must point at something that exists (resolveRefs leaves some
// dangling references alone).
const lookup = (pointer) =>
  pointer
    .replace(/^#\//, "")
    .split("/")
    .map((part) => part.replace(/~1/g, "/").replace(/~0/g, "~"))
    .reduce((node, key) => (node === undefined ? undefined : node[key]), document);
const walk = (node, where) => {
  if (Array.isArray(node)) node.forEach((item, i) => walk(item, `${where}/${i}`));
  else if (node && typeof node === "object") {
    for (const [key, value] of Object.entries(node)) {
      if (key === "$ref" && (typeof value !== "string" || lookup(value) === undefined))
        problems.push(`${where}: $ref ${JSON.stringify(value)} points nowhere`);
      else walk(value, `${where}/${key}`);
    }
  }
};
walk(document, "#");

const ids = new Map();
for (const [path, item] of Object.entries(document.paths ?? {})) {
  for (const [method, operation] of Object.entries(item)) {
    if (!operation || typeof operation !== "object" || !("operationId" in operation)) continue;
    const id = operation.operationId;
    if (ids.has(id)) problems.push(`operationId ${id} is used by ${ids.get(id)} and ${method} ${path}`);
    else ids.set(id, `${method} ${path}`);
  }
}

if (problems.length > 0) {
  console.error("validate-openapi: " + problems.join("\nvalidate-openapi: "));
  process.exit(1);
}
console.log(`validate-openapi: valid OpenAPI ${document.openapi}, ${Object.keys(document.paths ?? {}).length} paths`);
