# Installation: filled in by the packaging of this project.
