// Placeholder: filled by the change that brings frame-buffer attachments.
