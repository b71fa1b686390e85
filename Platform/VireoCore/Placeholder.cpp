// Placeholder until the core library lands.
