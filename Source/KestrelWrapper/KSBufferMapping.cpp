// Placeholder: filled by the change that brings buffer mappings.
