// Placeholder: filled by the hardening change.
