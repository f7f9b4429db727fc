# The service watcher library; its sources are listed as they are written.
