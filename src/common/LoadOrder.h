#ifndef KRO_LOAD_ORDER_H
#define KRO_LOAD_ORDER_H

/// Marks a static of class type that is built before every static without the mark, in whichever source file
/// that one stands.
///
/// The language orders statics within one source file only. In a program that links the library as an
/// archive, an initialiser of the host may come first, and would read an empty key or a tree without
/// defaults: which of the two happens is the linker's choice. 101 is the first priority that isn't the
/// compiler's own; statics with the same priority in one file keep their order. (In the shared library the
/// mark is not needed: all its initialisers run before the program's.)
#define KRO_BUILT_FIRST [[gnu::init_priority(101)]]

#endif
