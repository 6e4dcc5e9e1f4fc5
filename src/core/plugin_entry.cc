// Present so the plugin module has a source of its own; the entry point lives in the core module.
