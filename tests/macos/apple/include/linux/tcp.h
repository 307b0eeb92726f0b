#error "this platform has no headers of the Linux kernel"
