// Green screen, stage 1 of 4 (drawn with the chroma_key_filter vertex file):
// the chroma distance of each pixel to the key goes into alpha. Dark, not
// very green pixels get a bonus that grows toward the top of the picture,
// where the hair is, so that dark hair is not keyed out.
varying vec2 tex_coord;

uniform sampler2D srcImage;
uniform float drawType;
uniform mat4 yuv_mat = mat4(0.182586, 0.614231, 0.062007, 0.062745,
                            -0.100644, -0.338572, 0.439216, 0.501961,
                            0.439216, -0.398942, -0.040274, 0.501961,
                            0.0, 0.0, 0.0, 1.0);
uniform vec2 chroma_key = vec2(0.17, 0.11);

float getChromaDist(vec3 rgb)
{
    vec4 yuvx = vec4(rgb, 1.0) * yuv_mat;
    return distance(chroma_key, yuvx.yz);
}

void main()
{
    vec4 src = texture2D(srcImage, tex_coord);
    if (drawType == 1.0) {
        gl_FragColor = src;
        return;
    }
    float fy = 1.0 - tex_coord.y;
    float dist = getChromaDist(src.rgb) + max(0.0, 0.5 - src.g) * 0.25 * fy * fy;
    gl_FragColor = vec4(src.rgb, dist);
}
