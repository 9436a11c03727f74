// Comes before everything that loads a binary: on another platform, theirs would be the error.
if (process.platform !== 'linux' || process.arch !== 'x64') {
  throw new Error(`zorv runs on linux-x64, not on ${process.platform}-${process.arch}`);
}
