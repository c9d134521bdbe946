'use strict';
// Reading request payloads of the service model. A field that is missing or of the wrong type throws
// Invalid, which the model answers with the command's invalid-argument code; nothing here throws
// anything else on client input.

class Invalid extends Error {}

// The service's id rule for users and channels: 1 to 64 characters from a fixed set.
const ID = /^[a-zA-Z0-9!#$%&()+\-:;<=.>?@[\\\]^_{}|~,\s]{1,64}$/;

// Largest message body: the text's UTF-8 length, or the byte count of the binary part.
const MAX_BODY = 32768;

function isPlainObject(v) {
  return v !== null && typeof v === 'object' && !Array.isArray(v) && !Buffer.isBuffer(v) && !ArrayBuffer.isView(v);
}

function id(v) {
  if (typeof v !== 'string' || !ID.test(v)) throw new Invalid();
  return v;
}

function object(v) {
  if (!isPlainObject(v)) throw new Invalid();
  return v;
}

// An optional object: absent or null reads as {}.
function optionalObject(v) {
  return v === undefined || v === null ? {} : object(v);
}

function optionalBool(v) {
  if (v !== undefined && v !== null && typeof v !== 'boolean') throw new Invalid();
  return v === true;
}

function strings(v) {
  if (!Array.isArray(v) || !v.every((s) => typeof s === 'string')) throw new Invalid();
  return v;
}

// {key: string value} as an ordered Map.
function stringMap(v) {
  const entries = Object.entries(object(v));
  if (!entries.every(([k, value]) => k !== '' && typeof value === 'string')) throw new Invalid();
  return new Map(entries);
}

function bytes(v) {
  if (Buffer.isBuffer(v)) return v;
  if (v instanceof ArrayBuffer) return Buffer.from(v);
  if (ArrayBuffer.isView(v)) return Buffer.from(v.buffer, v.byteOffset, v.byteLength);
  return null;
}

// A message "content": {text: string | null, binary: bytes | null}; either may be absent (null).
// The body is relayed with both keys, binary as a Buffer so that it travels as an attachment.
function content(v) {
  const c = object(v);
  const text = c.text === undefined ? null : c.text;
  const binary = c.binary === undefined || c.binary === null ? null : bytes(c.binary);
  if ((text !== null && typeof text !== 'string') || (c.binary != null && binary === null)) throw new Invalid();
  return { text, binary };
}

function tooBig({ text, binary }) {
  const textBytes = text === null ? 0 : Buffer.byteLength(text, 'utf8');
  return textBytes > MAX_BODY || (binary !== null && binary.length > MAX_BODY);
}

function mapObject(map) {
  return Object.fromEntries(map);
}

module.exports = {
  Invalid,
  isPlainObject,
  id,
  object,
  optionalObject,
  optionalBool,
  strings,
  stringMap,
  content,
  tooBig,
  mapObject,
};
