// Placeholder: filled with the class family it tests.
