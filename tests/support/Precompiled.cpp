// A precompiled header needs a source to belong to.
