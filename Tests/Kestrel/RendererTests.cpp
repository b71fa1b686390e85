// Placeholder: filled with the part of the runtime it tests.
