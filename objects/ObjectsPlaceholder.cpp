// Placeholder so the objects library has a source until its first real file arrives.
