"""The parts of scripts/mutate: reading C++ (cpp), its mutants (mutants), building and testing
them (runs)."""
