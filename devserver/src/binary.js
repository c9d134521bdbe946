'use strict';
// Control JSON has no bytes, so binary values travel as {"$base64": "..."} (or {"$hex": "..."} inbound)
// and become Buffers wherever they appear, nested too.

function isPlainObject(v) {
  return v !== null && typeof v === 'object' && !Array.isArray(v) && !Buffer.isBuffer(v);
}

function bytesMarker(v) {
  if (!isPlainObject(v)) return null;
  const keys = Object.keys(v);
  if (keys.length !== 1) return null;
  if (keys[0] === '$base64' && typeof v.$base64 === 'string') return Buffer.from(v.$base64, 'base64');
  if (keys[0] === '$hex' && typeof v.$hex === 'string') {
    if (!/^([0-9a-fA-F]{2})*$/.test(v.$hex)) throw new Error('bad $hex value');
    return Buffer.from(v.$hex, 'hex');
  }
  return null;
}

// Control JSON → values to emit: markers become Buffers.
function decode(value) {
  const bytes = bytesMarker(value);
  if (bytes) return bytes;
  if (Array.isArray(value)) return value.map(decode);
  if (isPlainObject(value)) {
    const out = {};
    for (const [k, v] of Object.entries(value)) out[k] = decode(v);
    return out;
  }
  return value;
}

// Received values → control JSON: Buffers (and typed arrays) become {"$base64": ...}.
function encode(value) {
  if (Buffer.isBuffer(value)) return { $base64: value.toString('base64') };
  if (value instanceof ArrayBuffer) return { $base64: Buffer.from(value).toString('base64') };
  if (ArrayBuffer.isView(value)) {
    return { $base64: Buffer.from(value.buffer, value.byteOffset, value.byteLength).toString('base64') };
  }
  if (Array.isArray(value)) return value.map(encode);
  if (isPlainObject(value)) {
    const out = {};
    for (const [k, v] of Object.entries(value)) out[k] = encode(v);
    return out;
  }
  return value;
}

module.exports = { decode, encode };
