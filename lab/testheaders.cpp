// Nothing of its own: the tests reuse the headers that are precompiled for it.
