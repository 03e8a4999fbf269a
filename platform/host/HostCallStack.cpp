// Host android::CallStack, android::ProcessCallStack, android::Printer, android::String8.
