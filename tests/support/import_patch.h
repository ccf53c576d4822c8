// What a loaded library calls of the system, for as long as the object lives: how a test makes the system
// fail, and sees exactly what it was asked.
#pragma once

namespace kesto {

class ImportPatch {
 public:
    // Puts `replacement` in the place of the function that `module` imports by this name; throws when it
    // imports none. The two must be declared alike.
    template <class Function>
    ImportPatch(void* module, const char* name, Function* replacement) : slot_(FindSlot(module, name)) {
        original_ = *slot_;
        Write(reinterpret_cast<void*>(replacement));
    }
    ~ImportPatch() { Write(original_); }
    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;

 private:
    static void** FindSlot(void* module, const char* name);
    void Write(void* function);

    void** slot_;
    void* original_;
};

}  // namespace kesto
