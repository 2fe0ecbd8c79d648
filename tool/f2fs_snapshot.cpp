// Empty on purpose: the executable's main is the one that the library exports.
